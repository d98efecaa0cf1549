// Several processes on one database file, as the processes of one user share it: writer
// processes save at the same time while a read-only process reads; nothing is lost, nothing is
// stored twice, no process logs a failure.
//
// Save counts scale with NDB_STRESS_SCALE (a positive factor, 1 by default).

#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/NotificationDatabaseConfig.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include "StressSupport.hpp"
#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <unistd.h>

namespace notificationdb {
namespace {

using testing::ChildProcess;
using testing::childProgram;
using testing::makeStressDirectory;
using testing::scaled;
using testing::RawDatabase;
using testing::ScopedEnvironment;
using testing::TemporaryDirectory;

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.rfind(prefix, 0) == 0;
}

void touch(const std::filesystem::path& path) {
    std::ofstream(path) << "go\n";
}

// What a child printed after its "ready" line, up to the end of its output.
struct ChildReport {
    std::vector<std::string> lines;
    int exitStatus = -1;

    std::vector<std::string> withPrefix(const std::string& prefix) const {
        std::vector<std::string> found;
        for (const auto& line : lines) {
            if (startsWith(line, prefix)) found.push_back(line);
        }
        return found;
    }
    // The number after `prefix` on the first line that starts with it; -1 without such a line.
    long number(const std::string& prefix) const {
        for (const auto& line : lines) {
            if (startsWith(line, prefix)) return std::atol(line.c_str() + prefix.size());
        }
        return -1;
    }
};

ChildReport finish(ChildProcess& child) {
    ChildReport report;
    while (auto line = child.readLine()) report.lines.push_back(*line);
    report.exitStatus = child.wait();
    return report;
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) text += "\n  " + line;
    return text;
}

void createStore(const std::filesystem::path& path) {
    Configuration configuration;
    configuration.busyMode = BusyMode::timeout(2.0);
    MainQueue::main().setScheduler([](auto, auto) {});
    (void)NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, configuration));
    MainQueue::main().setScheduler({});
}

// Checks the file after writers saved `perWriter` notifications each (see rel_writer): every
// own-key notification once, one copy per shared content key, each button with its owner.
void expectAllSavesStoredOnce(const std::filesystem::path& path, int writers, int perWriter) {
    RawDatabase raw(path);
    const int sharedKeys = (perWriter + 9) / 10;
    const int expectedRows = writers * (perWriter - sharedKeys) + sharedKeys;
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM notification"), std::to_string(expectedRows));

    std::map<std::string, int> titles;
    for (const auto& row : raw.query("SELECT title FROM notification WHERE customerId != 'shared'")) ++titles[row[0]];
    int missingOrTwice = 0;
    for (int w = 0; w < writers; ++w) {
        for (int j = 0; j < perWriter; ++j) {
            if (j % 10 != 0 && titles["w" + std::to_string(w) + "-" + std::to_string(j)] != 1) ++missingOrTwice;
        }
    }
    EXPECT_EQ(missingOrTwice, 0);
    EXPECT_EQ(raw.scalar("SELECT COUNT(DISTINCT version) FROM notification WHERE customerId = 'shared'"),
              std::to_string(sharedKeys));
    EXPECT_TRUE(raw.query("SELECT customerId, notificationKind, version, appId FROM notification "
                          "WHERE notificationKind != 0 GROUP BY 1, 2, 3, 4 HAVING COUNT(*) > 1")
                    .empty());
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM notificationButton b LEFT JOIN notification n "
                         "ON n.id = b.notificationId WHERE n.id IS NULL OR n.title IS NOT b.buttonId"),
              "0");
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM notificationButton"),
              raw.scalar("SELECT COUNT(*) FROM notification WHERE CAST(substr(title, instr(title, '-') + 1) AS "
                         "INTEGER) % 3 != 0"));
    EXPECT_EQ(raw.scalar("PRAGMA integrity_check"), "ok");
    EXPECT_TRUE(raw.query("PRAGMA foreign_key_check").empty());
}

// Four writer processes save 500 notifications each into one file (a tenth of them under content
// keys that all writers share) while a read-only process reads the list and the count.
TEST(MultiProcess, WriterProcessesAndReadOnlyReaderShareOneFile) {
    const auto directory = makeStressDirectory();
    const auto path = *directory / "NotificationDatabase.sqlite";
    const auto goFile = *directory / "go";
    const auto stopFile = *directory / "stop";
    createStore(path);  // the read-only process needs the file and its tables

    const int writers = 4;
    const int perWriter = scaled(500, 10);

    ChildProcess reader(childProgram("rel_reader"), {path.string(), stopFile.string()});
    ASSERT_EQ(reader.readLine(), "ready");
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (int w = 0; w < writers; ++w) {
        children.push_back(std::make_unique<ChildProcess>(
            childProgram("rel_writer"),
            std::vector<std::string>{path.string(), std::to_string(w), std::to_string(perWriter), goFile.string()}));
        ASSERT_EQ(children.back()->readLine(), "ready") << "writer " << w;
    }
    touch(goFile);

    long notices = 0;
    for (int w = 0; w < writers; ++w) {
        const ChildReport report = finish(*children[static_cast<std::size_t>(w)]);
        EXPECT_EQ(report.exitStatus, 0) << "writer " << w << joined(report.lines);
        EXPECT_EQ(report.withPrefix("failure "), std::vector<std::string>{}) << "writer " << w;
        EXPECT_EQ(report.number("done "), perWriter) << "writer " << w << joined(report.lines);
        notices += report.number("notices ");
    }
    touch(stopFile);
    const ChildReport readerReport = finish(reader);
    EXPECT_EQ(readerReport.exitStatus, 0) << joined(readerReport.lines);
    EXPECT_EQ(readerReport.withPrefix("violation "), std::vector<std::string>{});
    EXPECT_EQ(readerReport.withPrefix("failure "), std::vector<std::string>{});
    EXPECT_GT(readerReport.number("reads "), 0) << joined(readerReport.lines);

    const int sharedKeys = (perWriter + 9) / 10;
    const int expectedRows = writers * (perWriter - sharedKeys) + sharedKeys;
    // The reader's last read came after every writer had finished.
    EXPECT_EQ(readerReport.number("final "), expectedRows);
    // Each process observes only its own commits: one notice per notification it stored.
    EXPECT_EQ(notices, expectedRows);
    expectAllSavesStoredOnce(path, writers, perWriter);
}

// Writer processes that open a file nobody has created yet, all at the same moment. Creating a
// store may then fail with SQLite's busy error (switching a new file to WAL mode takes it for
// a moment, and SQLite refuses rather than waits where waiting could deadlock), but only so: a
// writer that tries again opens the file, which has its tables once, and every save is stored.
TEST(MultiProcess, WriterProcessesSettingUpANewFileTogether) {
    const auto directory = makeStressDirectory();
    const auto path = *directory / "NotificationDatabase.sqlite";
    const auto goFile = *directory / "go";
    const int writers = 4;
    const int perWriter = scaled(50, 10);

    std::vector<std::unique_ptr<ChildProcess>> children;
    for (int w = 0; w < writers; ++w) {
        children.push_back(std::make_unique<ChildProcess>(
            childProgram("rel_writer"),
            std::vector<std::string>{path.string(), std::to_string(w), std::to_string(perWriter), goFile.string(),
                                     "open-after-go"}));
        ASSERT_EQ(children.back()->readLine(), "ready") << "writer " << w;
    }
    ASSERT_FALSE(std::filesystem::exists(path));
    touch(goFile);
    for (int w = 0; w < writers; ++w) {
        const ChildReport report = finish(*children[static_cast<std::size_t>(w)]);
        EXPECT_EQ(report.exitStatus, 0) << "writer " << w << joined(report.lines);
        EXPECT_EQ(report.withPrefix("failure "), std::vector<std::string>{}) << "writer " << w;
        for (const auto& line : report.withPrefix("open-failed ")) {
            EXPECT_NE(line.find("(SQLITE_BUSY)"), std::string::npos) << "writer " << w << ": " << line;
        }
    }
    RawDatabase raw(path);
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM sqlite_master WHERE type = 'table' AND name IN ('notification', "
                         "'notificationButton')"),
              "2");
    EXPECT_EQ(raw.scalar("PRAGMA journal_mode"), "wal");
    expectAllSavesStoredOnce(path, writers, perWriter);
}

}  // namespace
}  // namespace notificationdb
