// What only real processes and threads show: writer processes sharing one file, a writer killed at
// any moment, and threads sharing one store (also run under ThreadSanitizer). A notice heard by
// another process is the tool table's `watch` row. Sizes scale with NDB_STRESS_SCALE.

#include "Testing.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <random>
#include <set>
#include <thread>

namespace notificationdb {
namespace {

using testing::ChildProcess;
using testing::RawDatabase, testing::Rows;

const std::string childProgram = std::string(NDB_CHILD_DIR) + "/ndb_child_writer";

// A size times the whole number $NDB_STRESS_SCALE (1 when unset).
int scaled(int count) {
    return count * int(testing::environmentNumber("NDB_STRESS_SCALE", 1));
}

// What no sequence of saves, deletions and crashes may leave: a damaged file, a button without
// its notification, or a content key stored twice.
Rows brokenRules(const RawDatabase& raw) {
    return raw.query(
        "SELECT integrity_check FROM pragma_integrity_check WHERE integrity_check != 'ok' UNION ALL "
        "SELECT 'orphan button ' || id FROM notificationButton WHERE notificationId NOT IN "
        "(SELECT id FROM notification) UNION ALL SELECT 'stored twice ' || version FROM notification "
        "WHERE notificationKind != 0 GROUP BY customerId, notificationKind, version, appId HAVING COUNT(*) > 1");
}

// Writer processes open a file nobody has created yet, all at once, and save; a tenth of their
// notifications share content keys. Every save is stored exactly once or logged as failed (a
// writer may wait out the 2.0 s busy time-out under load), none is half stored.
TEST(Process, WriterProcessesShareOneFile) {
    testing::TemporaryDirectory directory;
    const auto file = directory / "db.sqlite";
    const int writers = int(testing::environmentNumber("NDB_WRITERS", 4));
    const int saves = scaled(200);
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (int w = 0; w < writers; ++w) {
        children.push_back(std::make_unique<ChildProcess>(
            childProgram, std::vector<std::string>{"saves", file.string(), std::to_string(w), std::to_string(saves),
                                             (directory / "go").string()}));
        ASSERT_EQ(children.back()->readLine(), "ready");
    }
    std::ofstream(directory / "go").put('\n');
    std::set<std::string> failed;
    for (auto& child : children) {
        for (auto line = child->readLine(); line && *line != "done"; line = child->readLine()) {
            EXPECT_TRUE(line->starts_with("failed ") && line->ends_with("(SQLITE_BUSY): database is locked")) << *line;
            failed.insert(line->substr(7, line->find(' ', 7) - 7));
        }
        EXPECT_EQ(child->wait(), 0);
    }
    std::cout << failed.size() << " of " << writers * saves << " saves waited out the busy time-out\n";
    RawDatabase raw(file);
    EXPECT_EQ(brokenRules(raw), Rows{});
    std::map<std::string, int> stored;
    for (const auto& row : raw.query("SELECT title FROM notification")) ++stored[row[0]];
    for (int w = 0; w < writers; ++w) {
        for (int j = 1; j < saves; j += j % 10 == 9 ? 2 : 1) {  // keys of its own
            const std::string title = "w" + std::to_string(w) + "-" + std::to_string(j);
            EXPECT_EQ(stored[title] + int(failed.count(title)), 1) << title;
        }
    }
    EXPECT_EQ(raw.query("SELECT COUNT(*) FROM notification n WHERE (SELECT COUNT(*) FROM notificationButton b "
                        "WHERE b.notificationId = n.id AND b.buttonId = n.title) != (n.appId % 3 != 0)"),
              Rows{{"0"}});
}

// A writer killed with SIGKILL at random moments, again and again: after each kill the file is
// intact and holds every notification the writer reported committed, and none it reported pruned.
TEST(Process, AWriterKilledAtAnyMomentLosesNothingItCommitted) {
    testing::TemporaryDirectory directory;
    const auto file = directory / "db.sqlite";
    std::mt19937 random(std::random_device{}());
    std::map<std::string, bool> reported;  // title -> still stored
    for (int run = 0; run < scaled(20); ++run) {
        ChildProcess writer(childProgram, {"crash", file.string(), std::to_string(run)});
        ASSERT_EQ(writer.readLine(), "ready");
        for (int changes = 4 + int(random() % 20); changes > 0; --changes) {
            const auto line = writer.readLine();
            ASSERT_TRUE(line && (line->starts_with("committed ") || line->starts_with("pruned "))) << *line;
            reported[line->substr(line->find(' ') + 1)] = line->starts_with("committed ");
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        writer.kill();
        ASSERT_EQ(writer.wait(), 128 + SIGKILL);
        while (const auto line = writer.readLine())
            reported[line->substr(line->find(' ') + 1)] = line->starts_with("c");

        auto store = NotificationDatabaseImpl::create(NotificationDatabaseConfig(file, Configuration{}));
        RawDatabase raw(file);
        ASSERT_EQ(brokenRules(raw), Rows{});
        std::map<std::string, int> stored;
        for (const auto& row : raw.query("SELECT title FROM notification")) ++stored[row[0]];
        for (const auto& [title, kept] : reported) ASSERT_EQ(stored[title], kept ? 1 : 0) << title;
        ASSERT_EQ(std::int64_t(store->fetchNotifications(std::nullopt).size()),
                  std::stoll(raw.query("SELECT COUNT(*) FROM notification")[0][0]));
    }
}

// Threads save (a tenth on content keys they share) and read through one store at once: every
// read sees whole saves, counts never go back, each key is stored once, one notice per row.
TEST(Threads, ConcurrentSavesAndReadsOnOneStore) {
    testing::TemporaryDirectory directory;
    testing::TestServices services;
    auto store = NotificationDatabaseImpl::create(
        NotificationDatabaseConfig(
            directory / "db.sqlite",
            Configuration{false, BusyMode::timeout(NotificationDatabaseConfig::busyTimeoutSeconds), false}),
        services.services());
    const int perThread = scaled(300);
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int j = 0; j < perThread; ++j) {
                NotificationModel n(std::nullopt, j % 10 == 0 ? "shared" : "t" + std::to_string(t),
                                    std::chrono::system_clock::now(), std::to_string(j), "tag", std::nullopt,
                                    std::nullopt, std::nullopt, false, std::nullopt, NotificationStatus::new_,
                                    NotificationKind::newApp);
                store->save({n, NotificationButton(std::nullopt, std::to_string(j), "Open", true, std::nullopt,
                                                   std::nullopt, std::nullopt)});
            }
        });
    }
    std::thread reader([&] {
        for (std::size_t seen = 0; !done;) {
            const auto list = store->fetchNotifications(std::nullopt);
            EXPECT_GE(list.size(), seen);
            seen = list.size();
            for (const auto& info : list) {
                ASSERT_TRUE(info.actionButton && info.actionButton->buttonId == info.notification.version);
            }
        }
    });
    for (auto& thread : threads) thread.join();
    done = true;
    reader.join();
    const int expected = 4 * (perThread - (perThread + 9) / 10) + (perThread + 9) / 10;
    EXPECT_EQ(store->notificationsCount(), expected);
    EXPECT_EQ(int(services.takeDeadlines().size()), expected);
    EXPECT_EQ(brokenRules(RawDatabase(directory / "db.sqlite")), Rows{});
    EXPECT_TRUE(services.takeLog().empty());
}

}  // namespace
}  // namespace notificationdb
