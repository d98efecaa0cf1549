// Several processes on one database file, as the processes of one user share it: writer
// processes save at the same time while a read-only store of this process reads, and a writer
// is killed at random moments; nothing committed is lost, nothing is stored twice, no process
// logs a failure. Save and kill counts scale with NDB_STRESS_SCALE.

#include "StressSupport.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <thread>

namespace notificationdb {
namespace {

using namespace testing;

// What a child printed up to the end of its output, and its exit status.
struct ChildReport {
    std::vector<std::string> lines;
    int exitStatus;

    explicit ChildReport(ChildProcess& child) : lines(child.readAll()), exitStatus(child.wait()) {}

    std::vector<std::string> withPrefix(const std::string& prefix) const {
        std::vector<std::string> found;
        std::copy_if(lines.begin(), lines.end(), std::back_inserter(found),
                     [&](const std::string& line) { return line.starts_with(prefix); });
        return found;
    }
    // The number after `prefix` on the first line that starts with it; -1 without such a line.
    long number(const std::string& prefix) const {
        const auto found = withPrefix(prefix);
        return found.empty() ? -1 : std::atol(found.front().c_str() + prefix.size());
    }
};

// Starts `writers` rel_writer processes that save `perWriter` notifications each once the go
// file appears, and returns them once each has printed "ready".
std::vector<std::unique_ptr<ChildProcess>> startWriters(const std::filesystem::path& path, int writers, int perWriter,
                                                        const std::filesystem::path& goFile,
                                                        std::vector<std::string> extra = {}) {
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (int w = 0; w < writers; ++w) {
        std::vector<std::string> arguments{path.string(), std::to_string(w), std::to_string(perWriter),
                                           goFile.string()};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        children.push_back(std::make_unique<ChildProcess>(childProgram("rel_writer"), arguments));
        EXPECT_EQ(children.back()->readLine(), "ready") << "writer " << w;
    }
    return children;
}

// Four writer processes save 500 notifications each into one file (a tenth of them under content
// keys that all writers share) while this process reads the list and the count through a
// read-only store.
TEST(MultiProcess, WriterProcessesAndReadOnlyReaderShareOneFile) {
    const auto directory = makeStressDirectory();
    const auto path = *directory / "NotificationDatabase.sqlite";
    LogCapture capture;
    {
        // The read-only store needs the file and its tables.
        CountingNotices notices;
        (void)NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, writerConfiguration()));
    }
    auto reader = NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, readerConfiguration()));
    const int writers = 4;
    const int perWriter = scaled(500, 10);

    auto children = startWriters(path, writers, perWriter, *directory / "go");
    std::atomic<bool> stop{false};
    std::vector<std::string> broken;
    std::thread reading([&] { broken = readUntilStopped(*reader, stop); });
    writeFile(*directory / "go", "go");
    long notices = 0;
    for (auto& child : children) {
        const ChildReport report(*child);
        EXPECT_EQ(report.exitStatus, 0) << ::testing::PrintToString(report.lines);
        EXPECT_EQ(report.withPrefix("failure "), std::vector<std::string>{});
        EXPECT_EQ(report.number("done "), perWriter) << ::testing::PrintToString(report.lines);
        notices += report.number("notices ");
    }
    stop = true;
    reading.join();
    EXPECT_EQ(broken, std::vector<std::string>{});
    EXPECT_EQ(capture.messages(), std::vector<std::string>{});
    EXPECT_EQ(reader->notificationsCount(), expectedStressRows(writers, perWriter));
    // Each process observes only its own commits: one notice per notification it stored.
    EXPECT_EQ(notices, expectedStressRows(writers, perWriter));
    EXPECT_EQ(storedOnceProblems(RawDatabase(path), "w", writers, perWriter), std::vector<std::string>{});
}

// Writer processes that open a file nobody has created yet, all at the same moment. Creating a
// store may then fail with SQLite's busy error (switching a new file to WAL mode takes it for
// a moment, and SQLite refuses rather than waits where waiting could deadlock), but only so: a
// writer that tries again opens the file, which has its tables once, and every save is stored.
TEST(MultiProcess, WriterProcessesSettingUpANewFileTogether) {
    const auto directory = makeStressDirectory();
    const auto path = *directory / "NotificationDatabase.sqlite";
    const int writers = 4;
    const int perWriter = scaled(50, 10);

    auto children = startWriters(path, writers, perWriter, *directory / "go", {"open-after-go"});
    ASSERT_FALSE(std::filesystem::exists(path));
    writeFile(*directory / "go", "go");
    for (auto& child : children) {
        const ChildReport report(*child);
        EXPECT_EQ(report.exitStatus, 0) << ::testing::PrintToString(report.lines);
        EXPECT_EQ(report.withPrefix("failure "), std::vector<std::string>{});
        for (const auto& line : report.withPrefix("open-failed "))
            EXPECT_THAT(line, ::testing::HasSubstr("(SQLITE_BUSY)"));
    }
    RawDatabase raw(path);
    EXPECT_EQ(raw.scalar("PRAGMA journal_mode"), "wal");
    EXPECT_EQ(storedOnceProblems(raw, "w", writers, perWriter), std::vector<std::string>{});
}

// The changes a crash writer reported, by key.
struct Reported {
    std::set<std::string> committed;
    std::set<std::string> pruned;
    std::vector<std::string> other;  // failures and anything unexpected

    // Takes one line of the writer; returns whether it reported a change.
    bool take(const std::string& line) {
        auto& into = line.starts_with("committed ") ? committed : pruned;
        if (line.starts_with("committed ") || line.starts_with("pruned ")) {
            into.insert(line.substr(line.find(' ') + 1));
            return true;
        }
        if (line != "ready") other.push_back(line);
        return false;
    }
};

// A writer process killed with SIGKILL at random moments, again and again, on one file: after
// every kill the file opens, is intact, and holds every change the writer reported committed.
TEST(Crash, WriterKilledAtRandomMomentsLeavesAnIntactFileWithEveryReportedCommit) {
    const auto directory = makeStressDirectory();
    const auto path = *directory / "NotificationDatabase.sqlite";
    const int kills = scaled(20, 3);
    std::mt19937 random(std::random_device{}());
    // At least four changes per run, so that every run also prunes once (its fourth change).
    std::uniform_int_distribution<int> changesBeforeKill(4, 30);
    std::uniform_int_distribution<int> delayBeforeKill(0, 3000);
    CountingNotices notices;

    Reported reported;
    for (int run = 0; run < kills; ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        {
            ChildProcess writer(childProgram("rel_crash_writer"), {path.string(), std::to_string(run)});
            for (int seen = 0, target = changesBeforeKill(random); seen < target;) {
                auto line = writer.readLine();
                ASSERT_TRUE(line.has_value()) << "the writer ended on its own after " << seen << " changes";
                if (reported.take(*line)) ++seen;
            }
            // Somewhere inside the next change, or between two of them.
            std::this_thread::sleep_for(std::chrono::microseconds(delayBeforeKill(random)));
            writer.kill(SIGKILL);
            EXPECT_EQ(writer.wait(), 128 + SIGKILL);
            // Lines the writer wrote before it died name changes that committed too.
            for (const auto& line : writer.readAll()) reported.take(line);
        }
        ASSERT_EQ(reported.other, std::vector<std::string>{});

        LogCapture capture;
        std::shared_ptr<NotificationDatabaseImpl> store;
        ASSERT_NO_THROW(store =
                            NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, writerConfiguration())));
        RawDatabase raw(path);
        ASSERT_EQ(tableProblems(raw), std::vector<std::string>{});
        std::map<std::string, int> titles;
        for (const auto& row : raw.query("SELECT title FROM notification")) ++titles[row[0]];
        for (const auto& key : reported.committed) ASSERT_EQ(titles[key], 1) << key << " reported committed";
        for (const auto& key : reported.pruned) ASSERT_EQ(titles.count(key), 0U) << key << " reported pruned";
        for (const auto& [title, count] : titles) ASSERT_EQ(count, 1) << title;
        // A button is written in its notification's transaction or not at all.
        ASSERT_EQ(raw.scalar("SELECT COUNT(*) FROM notification n WHERE (SELECT COUNT(*) FROM notificationButton b "
                             "WHERE b.notificationId = n.id AND b.buttonId = n.title) != 1"),
                  "0");
        // The store reads everything back as records.
        ASSERT_EQ(std::to_string(store->fetchNotifications(std::nullopt).size()),
                  raw.scalar("SELECT COUNT(*) FROM notification"));
        ASSERT_EQ(capture.messages(), std::vector<std::string>{});
    }
    EXPECT_GE(reported.committed.size(), static_cast<std::size_t>(kills));
    EXPECT_FALSE(reported.pruned.empty());
}

}  // namespace
}  // namespace notificationdb
