// What only real processes show: writers of two threads sharing one file (also under ThreadSanitizer)
// and a bus daemon that stops. Notices across processes are the tool's `watch` row, crashes the model's
// power cuts. Sizes scale with NDB_STRESS_SCALE.

#include "Testing.hpp"

#include <NotificationDatabase/ExistingStore.hpp>
#include <NotificationDatabase/Platform/DistributedNotificationCenter.hpp>

#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <iostream>
#include <map>
#include <thread>

namespace notificationdb {
namespace {

using testing::ChildProcess;
using testing::RawDatabase, testing::Rows;

const std::string childProgram = std::string(NDB_CHILD_DIR) + "/ndb_child_writer";

// Writers open a file nobody has made yet, all at once, and save (a tenth share content keys); reads
// here see whole saves and counts that never go back. Each save is stored once or logged as failed
// (the 2.0 s busy time-out under load), none half stored.
TEST(Process, WriterProcessesShareOneFile) {
    testing::TemporaryDirectory directory;
    const auto file = directory / "db.sqlite";
    const int writers = int(testing::environmentNumber("NDB_WRITERS", 4));
    const int saves = 200 * int(testing::environmentNumber("NDB_STRESS_SCALE", 1));
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (int w = 0; w < writers; ++w) {
        children.push_back(std::make_unique<ChildProcess>(childProgram + " " + file.string() + " " + std::to_string(w) +
                                                          " " + std::to_string(saves) + " " +
                                                          (directory / "go").string()));
        ASSERT_EQ(children.back()->readLine(), "ready");
    }
    std::ofstream(directory / "go").put('\n');
    std::atomic<bool> done{false};
    std::thread reader([&] {
        std::shared_ptr<NotificationDatabaseImpl> store;
        const NotificationDatabaseConfig reading(file, Configuration{true, BusyMode::timeout(2.0), true});
        // Not before a writer has made the file a WAL database, so as not to stand in the way of that.
        while (!done && !(std::filesystem::exists(file.string() + "-wal") && (store = openExistingStore(reading))))
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        for (std::size_t seen = 0; store && !done;) {
            const auto list = store->fetchNotifications(std::nullopt);
            EXPECT_GE(list.size(), seen);
            seen = list.size();
            for (const auto& info : list)
                ASSERT_EQ(info.actionButton ? info.actionButton->buttonId : info.notification.title,
                          info.notification.title);
        }
    });
    int failed = 0;
    for (auto& child : children) {
        for (auto line = child->readLine(); line && *line != "done"; line = child->readLine(), ++failed)
            EXPECT_TRUE(line->starts_with("failed ") && line->ends_with("(SQLITE_BUSY): database is locked")) << *line;
        EXPECT_EQ(child->wait(), 0);
    }
    done = true;
    reader.join();
    std::cout << failed << " of " << writers * saves << " saves waited out the busy time-out\n";
    RawDatabase raw(file);
    // What no writes may leave: a damaged file, a button without its notification, a content key twice.
    EXPECT_EQ(
        raw.query(
            "SELECT integrity_check FROM pragma_integrity_check WHERE integrity_check != 'ok' UNION ALL "
            "SELECT 'orphan button ' || id FROM notificationButton WHERE notificationId NOT IN "
            "(SELECT id FROM notification) UNION ALL SELECT 'stored twice ' || version FROM notification "
            "WHERE notificationKind != 0 GROUP BY customerId, notificationKind, version, appId HAVING COUNT(*) > 1"),
        Rows{});
    std::map<std::string, int> stored;
    for (const auto& row : raw.query("SELECT title FROM notification")) ++stored[row[0]];
    int missing = 0;
    for (int w = 0; w < writers; ++w) {
        for (int j = 1; j < saves; j += j % 10 == 9 ? 2 : 1) {  // keys of its own
            const std::string title = "w" + std::to_string(w) + "-" + std::to_string(j);
            EXPECT_LE(stored[title], 1) << title;
            missing += stored[title] == 0 ? 1 : 0;
        }
    }
    EXPECT_LE(missing, failed) << "saves lost without a failure";
    EXPECT_EQ(raw.query("SELECT COUNT(*) FROM notification n WHERE (SELECT COUNT(*) FROM notificationButton b "
                        "WHERE b.notificationId = n.id AND b.buttonId = n.title) != (n.appId % 3 != 0)"),
              Rows{{"0"}});
}

// A stopped bus daemon stalls neither a write nor the post: the notice waits in the connection and
// goes out when the daemon goes on. The save's and post's times are printed.
TEST(Process, AStoppedBusDaemonStallsNoWrite) {
    testing::TemporaryDirectory directory;
    ChildProcess daemon("dbus-daemon --session --nofork --print-address=1");
    const auto address = daemon.readLine();
    ASSERT_TRUE(address && !address->empty());
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address->c_str(), 1);
    auto center = makeDBusNotificationCenter();
    int heard = 0;
    const auto listening = center->addObserver(databaseUpdated(), [&heard](const std::string&) { ++heard; });
    ASSERT_TRUE(listening);
    daemon.kill(SIGSTOP);

    testing::TestServices test;
    auto services = test.services();
    services.noticeCenter = center;
    auto store = NotificationDatabaseImpl::create(NotificationDatabaseConfig(directory / "db.sqlite", Configuration{}),
                                                  services);
    using Clock = std::chrono::steady_clock;
    const auto began = Clock::now();
    store->save(testing::notification(std::nullopt));
    const auto saved = Clock::now();
    auto jobs = test.takeJobs();
    ASSERT_EQ(jobs.size(), 1U);
    auto post = std::async(std::launch::async, jobs[0].second);
    const bool posted = post.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
    const auto ms = [](auto duration) { return std::chrono::duration<double, std::milli>(duration).count(); };
    std::cout << "with the bus daemon stopped: save " << ms(saved - began) << " ms, post " << ms(Clock::now() - saved)
              << " ms\n";
    daemon.kill(SIGCONT);
    EXPECT_TRUE(posted) << "the post waited for the stopped daemon";
    for (const auto deadline = Clock::now() + std::chrono::seconds(60); heard == 0 && Clock::now() < deadline;)
        MainQueue::main().runFor(std::chrono::milliseconds(50));
    EXPECT_EQ(heard, 1) << "the notice did not go out once the daemon went on";
}

}  // namespace
}  // namespace notificationdb
