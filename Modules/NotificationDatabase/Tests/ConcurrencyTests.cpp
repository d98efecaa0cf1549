// Many threads of one process on one store, and several stores on one file: nothing saved is
// lost or stored twice, no read sees half a save, counts never go backwards, nothing fails.
// Iteration counts scale with NDB_STRESS_SCALE (a positive factor, 1 by default).

#include <NotificationDatabase/NotificationUpdater/NotificationUpdaterImpl.hpp>

#include "StressSupport.hpp"

#include <gtest/gtest.h>

#include <thread>

namespace notificationdb {
namespace {

using namespace testing;

using Broken = std::vector<std::vector<std::string>>;

// Four threads save 1,000 notifications each (a tenth of them under content keys the threads
// share) while four threads read the list and the count in loops.
TEST(Concurrency, ParallelSavesAndReadsOnOneStoreKeepEverySaveWholeAndOnce) {
    const auto directory = makeStressDirectory();
    const auto path = *directory / "NotificationDatabase.sqlite";
    LogCapture capture;
    CountingNotices notices;
    auto store = NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, writerConfiguration()));
    const int writers = 4;
    const int perWriter = scaled(1000, 1);

    std::atomic<bool> stop{false};
    Broken broken(4);
    std::vector<std::thread> readers;
    for (auto& mine : broken) readers.emplace_back([&] { mine = readUntilStopped(*store, stop); });
    std::vector<std::thread> writerThreads;
    for (int w = 0; w < writers; ++w) {
        writerThreads.emplace_back([&, w] {
            for (int j = 0; j < perWriter; ++j) store->save(stressNotification("t", w, j));
        });
    }
    for (auto& thread : writerThreads) thread.join();
    stop = true;
    for (auto& thread : readers) thread.join();

    EXPECT_EQ(broken, Broken(4));
    EXPECT_EQ(capture.messages(), std::vector<std::string>{});
    EXPECT_EQ(storedOnceProblems(RawDatabase(path), "t", writers, perWriter), std::vector<std::string>{});
    EXPECT_EQ(store->notificationsCount(), expectedStressRows(writers, perWriter));
    // One notice per stored notification: each stored save is its own transaction.
    EXPECT_EQ(notices.count(), expectedStressRows(writers, perWriter));
}

// Updaters receive batches while other threads change statuses and button visibility, delete
// notifications and read: every operation keeps its rules and nothing is logged as failed.
TEST(Concurrency, MixedOperationsFromManyThreadsLeaveConsistentTables) {
    const auto directory = makeStressDirectory();
    const auto path = *directory / "NotificationDatabase.sqlite";
    LogCapture capture;
    CountingNotices notices;
    auto store = NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, writerConfiguration()));
    const auto updaterStore = std::static_pointer_cast<NotificationDatabaseProtocol>(store);
    const int batches = scaled(200, 1);

    std::atomic<bool> stop{false};
    std::atomic<long> changes{0};
    Broken broken(2);
    std::vector<std::thread> threads;
    for (int w = 0; w < 2; ++w) {
        threads.emplace_back([&, w] {
            NotificationUpdaterImpl updater(updaterStore);
            for (int b = 0; b < batches; ++b) {
                std::vector<NotificationModelInfo> batch;
                for (int k = 0; k < 10; ++k) batch.push_back(stressNotification("m", w, b * 10 + k));
                updater.receive(batch);
            }
        });
    }
    const std::size_t receivers = threads.size();
    // Changes statuses and visibility of every other notification, round after round.
    threads.emplace_back([&] {
        NotificationUpdaterImpl updater(updaterStore);
        for (int round = 0; round == 0 || !stop.load(); ++round) {
            NotificationIDs ids;
            for (const auto& info : store->fetchNotifications(std::nullopt)) {
                if (info.notification.id().value_or(1) % 2 == round % 2) ids.insert(info.notification.id().value_or(0));
            }
            updater.updateStatus(ids, round % 3 == 0 ? NotificationStatus::read : NotificationStatus::shown);
            updater.updateButtonVisibility(ids, round % 2 == 0);
            ++changes;
        }
    });
    // Deletes every seventh notification, round after round, and now and then all of a kind.
    threads.emplace_back([&] {
        for (int round = 0; round == 0 || !stop.load(); ++round) {
            NotificationModelInfoSet victims;
            for (const auto& info : store->fetchNotifications(std::nullopt)) {
                if (info.notification.id().value_or(1) % 7 == round % 7) victims.insert(info);
            }
            store->deleteNotifications(victims);
            if (round % 5 == 4) store->deleteAllNotifications(NotificationKind::ai);
            ++changes;
        }
    });
    for (int r = 0; r < 2; ++r) {
        threads.emplace_back([&, r] {
            auto& mine = broken[static_cast<std::size_t>(r)];
            do {
                checkStressList(store->fetchNotifications(std::nullopt), mine);
                // A failing existence question answers true, which no stored version can cause.
                if (store->containsVantro("no such version")) mine.push_back("containsVantro of an unknown version");
                (void)store->containsNotification(NotificationKind::newApp, "mshared", std::nullopt,
                                                  "mshared-" + std::to_string(r * 10));
            } while (!stop.load() && mine.size() < 10);
        });
    }
    for (std::size_t i = 0; i < receivers; ++i) threads[i].join();
    stop = true;
    for (std::size_t i = receivers; i < threads.size(); ++i) threads[i].join();

    EXPECT_EQ(broken, Broken(2));
    EXPECT_GT(changes.load(), 0);
    EXPECT_EQ(capture.messages(), std::vector<std::string>{});
    EXPECT_GT(notices.count(), 0);
    RawDatabase raw(path);
    EXPECT_EQ(tableProblems(raw), std::vector<std::string>{});
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM (SELECT title FROM notification GROUP BY title HAVING COUNT(*) > 1)"),
              "0");
    EXPECT_EQ(std::to_string(store->notificationsCount()), raw.scalar("SELECT COUNT(*) FROM notification"));
}

// Two writer stores and a read-only store on one file in one process: their pools meet only
// through SQLite's file locks, which the writers wait on for up to 2.0 s.
TEST(Concurrency, SeveralStoresOnOneFileInOneProcessLoseAndDuplicateNothing) {
    const auto directory = makeStressDirectory();
    const auto path = *directory / "NotificationDatabase.sqlite";
    LogCapture capture;
    CountingNotices notices;
    std::shared_ptr<NotificationDatabaseImpl> writerStores[] = {
        NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, writerConfiguration())),
        NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, writerConfiguration()))};
    auto readOnlyStore = NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, readerConfiguration()));
    const int writers = 4;
    const int perWriter = scaled(300, 1);

    std::atomic<bool> stop{false};
    std::vector<std::string> broken;
    std::thread reader([&] { broken = readUntilStopped(*readOnlyStore, stop); });
    std::vector<std::thread> writerThreads;
    for (int w = 0; w < writers; ++w) {
        writerThreads.emplace_back([&, w] {
            for (int j = 0; j < perWriter; ++j) writerStores[w % 2]->save(stressNotification("s", w, j));
        });
    }
    for (auto& thread : writerThreads) thread.join();
    stop = true;
    reader.join();

    EXPECT_EQ(broken, std::vector<std::string>{});
    EXPECT_EQ(capture.messages(), std::vector<std::string>{});
    EXPECT_EQ(storedOnceProblems(RawDatabase(path), "s", writers, perWriter), std::vector<std::string>{});
    EXPECT_EQ(readOnlyStore->notificationsCount(), expectedStressRows(writers, perWriter));
    // Each store observes only its own commits, and the read-only one never writes.
    EXPECT_EQ(notices.count(), expectedStressRows(writers, perWriter));
}

}  // namespace
}  // namespace notificationdb
