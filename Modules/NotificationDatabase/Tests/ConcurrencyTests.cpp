// Many threads of one process on one store, and several stores on one file: nothing saved is
// lost or stored twice, no read sees half a save, counts never go backwards, nothing fails.
//
// Iteration counts scale with NDB_STRESS_SCALE (a positive factor, 1 by default).

#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/NotificationDatabaseConfig.hpp>
#include <NotificationDatabase/NotificationUpdater/NotificationUpdaterImpl.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include "StressSupport.hpp"
#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace notificationdb {
namespace {

using testing::LogCapture;
using testing::makeStressDirectory;
using testing::RawDatabase;
using testing::scaled;
using testing::ScopedEnvironment;
using testing::TemporaryDirectory;

Configuration writerConfiguration() {
    Configuration configuration;
    configuration.busyMode = BusyMode::timeout(2.0);
    return configuration;
}

Configuration readerConfiguration() {
    Configuration configuration = writerConfiguration();
    configuration.readOnly = true;
    configuration.persistentReadOnlyConnections = true;
    return configuration;
}

// Counts the change notices the stores schedule instead of running them; restores the main
// queue's own scheduling when it goes.
class CountingNotices {
public:
    CountingNotices() {
        MainQueue::main().setScheduler([this](auto, auto) { count_.fetch_add(1, std::memory_order_relaxed); });
    }
    ~CountingNotices() { MainQueue::main().setScheduler({}); }
    CountingNotices(const CountingNotices&) = delete;
    CountingNotices& operator=(const CountingNotices&) = delete;

    int count() const { return count_.load(); }

private:
    std::atomic<int> count_{0};
};

// Rule breaks seen by worker threads, reported once the threads are joined (the first few only).
class Violations {
public:
    void add(std::string what) {
        std::lock_guard lock(mutex_);
        ++count_;
        if (examples_.size() < 10) examples_.push_back(std::move(what));
    }
    int count() const {
        std::lock_guard lock(mutex_);
        return count_;
    }
    std::string examples() const {
        std::lock_guard lock(mutex_);
        std::string text;
        for (const auto& example : examples_) text += "\n  " + example;
        return text;
    }

private:
    mutable std::mutex mutex_;
    int count_ = 0;
    std::vector<std::string> examples_;
};

std::vector<std::string> errorMessages(const LogCapture& capture) {
    std::vector<std::string> messages;
    for (const auto& entry : capture.entries()) {
        if (entry.level >= LogLevel::error) messages.push_back(entry.loggerPath + ": " + entry.message);
    }
    return messages;
}

constexpr NotificationKind kKinds[] = {NotificationKind::default_, NotificationKind::newApp,
                                       NotificationKind::appUpdate, NotificationKind::vantroUpdate,
                                       NotificationKind::ai};

// Notification j of writer w, titled "t<w>-<j>". Every tenth has the content key that all
// writers share for that j (customer "shared", kind newApp, version "shared-<j>", app j); the
// rest have keys of their own. Those with j % 3 != 0 carry a button whose buttonId repeats the
// title, so that a reader can tell whether a button came with the right notification.
NotificationModelInfo writerNotification(int writer, int j, const std::string& prefix = "t") {
    const std::string title = prefix + std::to_string(writer) + "-" + std::to_string(j);
    const bool shared = j % 10 == 0;
    NotificationModel notification(
        std::nullopt, shared ? std::optional<std::string>(prefix + "shared") : prefix + "c" + std::to_string(writer),
        std::chrono::system_clock::now(), shared ? prefix + "shared-" + std::to_string(j) : title, "tag", title, "body",
        std::nullopt, false, std::optional<std::int64_t>(j), NotificationStatus::new_,
        shared ? NotificationKind::newApp : kKinds[j % 5]);
    std::optional<NotificationButton> button;
    if (j % 3 != 0) {
        button = NotificationButton(std::nullopt, title, "Open", true, std::nullopt, UserActionKind::openLink,
                                    Bytes{1, 2, 3});
    }
    return {std::move(notification), std::move(button)};
}

bool savedWithButton(const std::optional<std::string>& title) {
    if (!title) return false;
    const auto dash = title->rfind('-');
    return dash != std::string::npos && std::atoi(title->c_str() + dash + 1) % 3 != 0;
}

// Checks one list read from the store: every button comes with its own notification and every
// notification saved with a button comes with it.
void checkList(const std::vector<NotificationModelInfo>& list, Violations& violations) {
    for (const auto& info : list) {
        const auto& title = info.notification.title;
        if (!info.notification.id()) violations.add("a notification without id");
        if (info.actionButton) {
            if (info.actionButton->notificationId != info.notification.id()) {
                violations.add("button pointing elsewhere, with " + title.value_or("?"));
            }
            if (info.actionButton->buttonId != title) {
                violations.add("button " + info.actionButton->buttonId.value_or("?") + " with " + title.value_or("?"));
            }
        } else if (savedWithButton(title)) {
            violations.add(title.value_or("?") + " without its button");
        }
    }
}

// Reads in a loop until `stop`: the count, then the whole list, checking both.
void readUntilStopped(NotificationDatabaseImpl& store, const std::atomic<bool>& stop, Violations& violations,
                      std::atomic<long>& reads) {
    std::int64_t seen = 0;
    bool last = false;
    while (!last) {
        last = stop.load();
        const std::int64_t count = store.notificationsCount();
        if (count < seen) violations.add("count went from " + std::to_string(seen) + " to " + std::to_string(count));
        seen = std::max(seen, count);
        const auto list = store.fetchNotifications(std::nullopt);
        const auto listed = static_cast<std::int64_t>(list.size());
        if (listed < seen) violations.add("list of " + std::to_string(listed) + " after count " + std::to_string(seen));
        seen = std::max(seen, listed);
        checkList(list, violations);
        reads.fetch_add(2);
    }
}

// Content keys (customer, kind, version, app) that more than one row holds; kind default is
// never a duplicate.
std::vector<std::vector<std::string>> duplicateContentKeys(const RawDatabase& raw) {
    return raw.query(
        "SELECT customerId, notificationKind, version, appId, COUNT(*) FROM notification "
        "WHERE notificationKind != 0 GROUP BY customerId, notificationKind, version, appId HAVING COUNT(*) > 1");
}

// Four threads save 1,000 notifications each (a tenth of them under content keys the threads
// share) while four threads read the list and the count in loops.
TEST(Concurrency, ParallelSavesAndReadsOnOneStoreKeepEverySaveWholeAndOnce) {
    const auto directory = makeStressDirectory();
    const auto path = *directory / "NotificationDatabase.sqlite";
    LogCapture capture;
    CountingNotices notices;
    auto store = NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, writerConfiguration()));

    const int writers = 4;
    const int readers = 4;
    const int perWriter = scaled(1000, 1);

    std::atomic<bool> stop{false};
    std::atomic<long> reads{0};
    Violations violations;
    std::vector<std::thread> readerThreads;
    for (int r = 0; r < readers; ++r) {
        readerThreads.emplace_back([&] { readUntilStopped(*store, stop, violations, reads); });
    }
    std::vector<std::thread> writerThreads;
    for (int w = 0; w < writers; ++w) {
        writerThreads.emplace_back([&, w] {
            for (int j = 0; j < perWriter; ++j) store->save(writerNotification(w, j));
        });
    }
    for (auto& thread : writerThreads) thread.join();
    stop = true;
    for (auto& thread : readerThreads) thread.join();

    EXPECT_EQ(violations.count(), 0) << violations.examples();
    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(errorMessages(capture), std::vector<std::string>{});

    const int sharedKeys = (perWriter + 9) / 10;
    const int expectedRows = writers * (perWriter - sharedKeys) + sharedKeys;
    RawDatabase raw(path);
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM notification"), std::to_string(expectedRows));
    EXPECT_EQ(store->notificationsCount(), expectedRows);
    // Every own-key notification exactly once, and one copy per shared key.
    std::map<std::string, int> titles;
    for (const auto& row : raw.query("SELECT title FROM notification")) ++titles[row[0]];
    for (int w = 0; w < writers; ++w) {
        for (int j = 0; j < perWriter; ++j) {
            if (j % 10 == 0) continue;
            const std::string title = "t" + std::to_string(w) + "-" + std::to_string(j);
            ASSERT_EQ(titles[title], 1) << title;
        }
    }
    for (int j = 0; j < perWriter; j += 10) {
        ASSERT_EQ(raw.scalar("SELECT COUNT(*) FROM notification WHERE version = 'tshared-" + std::to_string(j) + "'"),
                  "1")
            << j;
    }
    EXPECT_TRUE(duplicateContentKeys(raw).empty());
    // Each stored notification that was saved with a button has exactly that one button.
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM notification n WHERE (SELECT COUNT(*) FROM notificationButton b "
                         "WHERE b.notificationId = n.id AND b.buttonId = n.title) != "
                         "(CAST(substr(n.title, instr(n.title, '-') + 1) AS INTEGER) % 3 != 0)"),
              "0");
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM notificationButton"),
              raw.scalar("SELECT COUNT(*) FROM notification WHERE CAST(substr(title, instr(title, '-') + 1) AS "
                         "INTEGER) % 3 != 0"));
    EXPECT_TRUE(raw.query("PRAGMA foreign_key_check").empty());
    // One notice per stored notification: each stored save is its own transaction.
    EXPECT_EQ(notices.count(), expectedRows);
}

// Updaters receive batches while other threads change statuses and button visibility, delete
// notifications and read: every operation keeps its rules and nothing is logged as failed.
TEST(Concurrency, MixedOperationsFromManyThreadsLeaveConsistentTables) {
    const auto directory = makeStressDirectory();
    const auto path = *directory / "NotificationDatabase.sqlite";
    LogCapture capture;
    CountingNotices notices;
    auto store = NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, writerConfiguration()));
    auto updaterStore = std::static_pointer_cast<NotificationDatabaseProtocol>(store);

    const int batches = scaled(200, 1);
    const int batchSize = 10;
    std::atomic<bool> stop{false};
    std::atomic<long> reads{0};
    std::atomic<long> changes{0};
    Violations violations;

    std::vector<std::thread> receivers;
    for (int w = 0; w < 2; ++w) {
        receivers.emplace_back([&, w] {
            NotificationUpdaterImpl updater(updaterStore);
            for (int b = 0; b < batches; ++b) {
                std::vector<NotificationModelInfo> batch;
                for (int k = 0; k < batchSize; ++k) batch.push_back(writerNotification(w, b * batchSize + k, "m"));
                updater.receive(batch);
            }
        });
    }
    std::thread changer([&] {
        NotificationUpdaterImpl updater(updaterStore);
        int round = 0;
        do {
            NotificationIDs ids;
            for (const auto& info : store->fetchNotifications(std::nullopt)) {
                if (info.notification.id() && *info.notification.id() % 2 == round % 2)
                    ids.insert(*info.notification.id());
            }
            updater.updateStatus(ids, round % 3 == 0 ? NotificationStatus::read : NotificationStatus::shown);
            updater.updateButtonVisibility(ids, round % 2 == 0);
            changes.fetch_add(1);
            ++round;
        } while (!stop.load());
    });
    std::thread deleter([&] {
        int round = 0;
        do {
            NotificationModelInfoSet victims;
            for (const auto& info : store->fetchNotifications(std::nullopt)) {
                if (info.notification.id() && *info.notification.id() % 7 == round % 7) victims.insert(info);
            }
            store->deleteNotifications(victims);
            if (round % 5 == 4) store->deleteAllNotifications(NotificationKind::ai);
            changes.fetch_add(1);
            ++round;
        } while (!stop.load());
    });
    std::vector<std::thread> readerThreads;
    for (int r = 0; r < 2; ++r) {
        readerThreads.emplace_back([&, r] {
            do {
                checkList(store->fetchNotifications(std::nullopt), violations);
                // A failing existence question answers true here, which a stored vantro
                // version cannot be mistaken for: no notification has this version.
                if (store->containsVantro("no such version")) violations.add("containsVantro of an unknown version");
                (void)store->containsNotification(NotificationKind::newApp, "mshared", std::nullopt,
                                                  "mshared-" + std::to_string(r * 10));
                reads.fetch_add(3);
            } while (!stop.load());
        });
    }

    for (auto& thread : receivers) thread.join();
    stop = true;
    changer.join();
    deleter.join();
    for (auto& thread : readerThreads) thread.join();

    EXPECT_EQ(violations.count(), 0) << violations.examples();
    EXPECT_GT(reads.load(), 0);
    EXPECT_GT(changes.load(), 0);
    EXPECT_EQ(errorMessages(capture), std::vector<std::string>{});
    EXPECT_GT(notices.count(), 0);

    RawDatabase raw(path);
    EXPECT_EQ(raw.scalar("PRAGMA integrity_check"), "ok");
    EXPECT_TRUE(raw.query("PRAGMA foreign_key_check").empty());
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM notificationButton WHERE notificationId IS NULL OR notificationId NOT "
                         "IN (SELECT id FROM notification)"),
              "0");
    EXPECT_TRUE(duplicateContentKeys(raw).empty());
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
    std::vector<std::shared_ptr<NotificationDatabaseImpl>> writerStores{
        NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, writerConfiguration())),
        NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, writerConfiguration()))};
    auto readOnlyStore = NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, readerConfiguration()));

    const int writers = 4;
    const int perWriter = scaled(300, 1);
    std::atomic<bool> stop{false};
    std::atomic<long> reads{0};
    Violations violations;
    std::thread reader([&] { readUntilStopped(*readOnlyStore, stop, violations, reads); });
    std::vector<std::thread> writerThreads;
    for (int w = 0; w < writers; ++w) {
        writerThreads.emplace_back([&, w] {
            auto& store = *writerStores[static_cast<std::size_t>(w % 2)];
            for (int j = 0; j < perWriter; ++j) store.save(writerNotification(w, j, "s"));
        });
    }
    for (auto& thread : writerThreads) thread.join();
    stop = true;
    reader.join();

    EXPECT_EQ(violations.count(), 0) << violations.examples();
    EXPECT_EQ(errorMessages(capture), std::vector<std::string>{});
    const int sharedKeys = (perWriter + 9) / 10;
    const int expectedRows = writers * (perWriter - sharedKeys) + sharedKeys;
    RawDatabase raw(path);
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM notification"), std::to_string(expectedRows));
    EXPECT_EQ(raw.scalar("SELECT COUNT(DISTINCT title) FROM notification"), std::to_string(expectedRows));
    EXPECT_TRUE(duplicateContentKeys(raw).empty());
    EXPECT_EQ(readOnlyStore->notificationsCount(), expectedRows);
    // Each store observes only its own commits, and the read-only one never writes.
    EXPECT_EQ(notices.count(), expectedRows);
}

}  // namespace
}  // namespace notificationdb
