// The store as an object: creation on a configuration, counting, and the change notice that
// follows every committed change of the stored notifications.

#include <NotificationDatabase/Database/DatabaseError.hpp>
#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/Platform/DistributedNotificationCenter.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace notificationdb {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::caught;
using testing::ChildProcess;
using testing::childProgram;
using testing::LogCapture;
using testing::RawDatabase;
using testing::ScopedEnvironment;
using testing::TemporaryDirectory;

class RecordingCenter final : public DistributedNotificationCenter {
public:
    void post(const std::string& name) override {
        std::lock_guard lock(mutex_);
        posted_.push_back(name);
    }
    std::unique_ptr<ObserverToken> addObserver(const std::string&, Handler) override { return nullptr; }
    std::vector<std::string> posted() const {
        std::lock_guard lock(mutex_);
        return posted_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> posted_;
};

// Routes the main queue's jobs to `scheduler` for the lifetime of the object.
struct InstalledScheduler {
    explicit InstalledScheduler(MainQueue::Scheduler scheduler) {
        MainQueue::main().setScheduler(std::move(scheduler));
    }
    ~InstalledScheduler() { MainQueue::main().setScheduler({}); }
};

Configuration writable() {
    Configuration configuration;
    configuration.busyMode = BusyMode::timeout(2.0);
    return configuration;
}

Configuration readOnly() {
    Configuration configuration = writable();
    configuration.readOnly = true;
    configuration.persistentReadOnlyConnections = true;
    return configuration;
}

// A notification with a content key of its own, so that no save skips it.
NotificationModelInfo makeInfo(int n, bool withButton = false) {
    NotificationModel notification(std::nullopt, "customer-" + std::to_string(n), std::chrono::system_clock::now(),
                                   "1." + std::to_string(n), "tag", "title", "body", std::nullopt, false, n,
                                   NotificationStatus::new_, NotificationKind::newApp);
    std::optional<NotificationButton> button;
    if (withButton)
        button.emplace(std::nullopt, "button", "Open", true, std::nullopt, UserActionKind::openApp, std::nullopt);
    return {std::move(notification), std::move(button)};
}

class StoreLifecycleTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Notices that other tests left scheduled must not land in this test's center.
        MainQueue::main().runUntilIdle();
        DistributedNotificationCenter::setDefaultCenter(center);
    }
    void TearDown() override {
        MainQueue::main().runUntilIdle();
        DistributedNotificationCenter::setDefaultCenter(nullptr);
    }

    NotificationDatabaseConfig config(const Configuration& configuration = writable()) const {
        return {NotificationDatabaseConfig::createDatabaseURl("NotificationDatabase.sqlite"), configuration};
    }
    // Runs the main queue until no job is left; returns the posts made meanwhile.
    std::size_t postsAfterDraining() {
        const std::size_t before = center->posted().size();
        MainQueue::main().runUntilIdle();
        return center->posted().size() - before;
    }

    TemporaryDirectory home;
    ScopedEnvironment homeVariable{"HOME", home.path().string()};
    ScopedEnvironment dataHomeVariable{"XDG_DATA_HOME", (home / "data").string()};
    const fs::path file = home / "data" / "Vantro" / "Default" / "Databases" / "NotificationDatabase.sqlite";
    std::shared_ptr<RecordingCenter> center = std::make_shared<RecordingCenter>();
    LogCapture capture;
};

TEST_F(StoreLifecycleTest, CreationOpensOrFailsWithTheDatabaseErrorAndPostsNothing) {
    const NotificationDatabaseConfig writing = config();
    const NotificationDatabaseConfig reading = config(readOnly());
    ASSERT_FALSE(fs::exists(file));

    auto missing = caught<DatabaseError>([&] { NotificationDatabaseImpl::create(reading); });
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->resultCode(), SQLITE_CANTOPEN);
    EXPECT_FALSE(fs::exists(file));

    auto store = NotificationDatabaseImpl::create(writing);
    ASSERT_TRUE(fs::exists(file));
    EXPECT_EQ(RawDatabase(file).query("SELECT name FROM sqlite_master WHERE name LIKE 'notification%' ORDER BY name"),
              (std::vector<std::vector<std::string>>{
                  {"notification"}, {"notificationButton"}, {"notificationButton_on_notificationId"}}));
    EXPECT_EQ(MainQueue::main().pendingCount(), 0U);
    EXPECT_EQ(store->notificationsCount(), 0);

    // A read-only store opens the existing file, reads what others write, and never posts.
    auto reader = NotificationDatabaseImpl::create(reading);
    EXPECT_EQ(reader->notificationsCount(), 0);
    store->save(makeInfo(1));
    EXPECT_EQ(reader->notificationsCount(), 1);

    const fs::path garbage = home / "garbage.sqlite";
    std::ofstream(garbage) << std::string(4096, '?');
    auto notADatabase = caught<DatabaseError>(
        [&] { NotificationDatabaseImpl::create(NotificationDatabaseConfig(garbage, writable())); });
    ASSERT_TRUE(notADatabase);
    EXPECT_EQ(notADatabase->resultCode(), SQLITE_NOTADB);

    // With a table missing, the read-only set-up would have to create it and cannot.
    const fs::path partial = home / "partial.sqlite";
    RawDatabase(partial).execute("CREATE TABLE notification (id INTEGER PRIMARY KEY)");
    auto cannotCreate = caught<DatabaseError>(
        [&] { NotificationDatabaseImpl::create(NotificationDatabaseConfig(partial, readOnly())); });
    ASSERT_TRUE(cannotCreate);
    EXPECT_EQ(cannotCreate->resultCode(), SQLITE_READONLY);
    EXPECT_TRUE(capture.entries().empty());

    reader->save(makeInfo(2));
    EXPECT_EQ(store->notificationsCount(), 1);
    EXPECT_EQ(postsAfterDraining(), 1U);
}

TEST_F(StoreLifecycleTest, CountsNotificationsAndReportsAFailedReadAsZero) {
    auto store = NotificationDatabaseImpl::create(config());
    EXPECT_EQ(store->notificationsCount(), 0);
    store->save(makeInfo(1, true));
    store->save(makeInfo(2));
    EXPECT_EQ(store->notificationsCount(), 2);
    EXPECT_EQ(postsAfterDraining(), 2U);

    RawDatabase raw(file);
    raw.execute("DROP TABLE notificationButton; DROP TABLE notification");
    capture.clear();
    EXPECT_EQ(store->notificationsCount(), 0);
    auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].level, LogLevel::error);
    EXPECT_TRUE(entries[0].loggerPath.ends_with("notifications-database")) << entries[0].loggerPath;
    EXPECT_EQ(entries[0].message,
              "Unable to fetch notifications count: SQLite error 1 (SQLITE_ERROR): no such table: notification");

    // The store stays usable, and changes made by another connection are not its to announce.
    raw.execute("CREATE TABLE notification (id INTEGER PRIMARY KEY); INSERT INTO notification VALUES (1)");
    EXPECT_EQ(store->notificationsCount(), 1);
    EXPECT_EQ(capture.entries().size(), 1U);
    EXPECT_EQ(postsAfterDraining(), 0U);
}

TEST_F(StoreLifecycleTest, EveryCommittedChangeOfNotificationsPostsOneNotice) {
    auto store = NotificationDatabaseImpl::create(config());
    store->save(makeInfo(1, true));
    store->save(makeInfo(2, true));
    store->save(makeInfo(3));
    EXPECT_TRUE(center->posted().empty()) << "posted before the delay";
    EXPECT_EQ(postsAfterDraining(), 3U);
    EXPECT_EQ(center->posted(), std::vector<std::string>(3, "databaseUpdatedNotification"));

    RawDatabase raw(file);
    store->updateButtonVisibility({1, 2}, false);
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM notificationButton WHERE visible = 0"), "2");
    EXPECT_EQ(MainQueue::main().pendingCount(), 0U) << "a button-only change was announced";

    // The notification row goes in, its button is refused, and the whole save rolls back.
    raw.execute(
        "CREATE TRIGGER refuseButtons BEFORE INSERT ON notificationButton "
        "BEGIN SELECT RAISE(ABORT, 'buttons refused'); END");
    store->save(makeInfo(4, true));
    raw.execute("DROP TRIGGER refuseButtons");
    EXPECT_EQ(store->notificationsCount(), 3);
    EXPECT_EQ(MainQueue::main().pendingCount(), 0U) << "a rolled-back write was announced";

    store->updateStatus({1, 2, 3}, NotificationStatus::read);
    store->deleteAll();
    EXPECT_EQ(store->notificationsCount(), 0);
    EXPECT_EQ(postsAfterDraining(), 2U);
}

TEST_F(StoreLifecycleTest, NoticeIsDueOneSecondAfterTheCommitAndOutlivesTheStore) {
    auto store = NotificationDatabaseImpl::create(config());
    std::vector<std::pair<MainQueue::Clock::time_point, MainQueue::Job>> scheduled;
    {
        InstalledScheduler installed([&](MainQueue::Clock::time_point deadline, MainQueue::Job job) {
            scheduled.emplace_back(deadline, std::move(job));
        });
        const auto before = MainQueue::Clock::now();
        store->save(makeInfo(1));
        const auto after = MainQueue::Clock::now();
        ASSERT_EQ(scheduled.size(), 1U);
        EXPECT_GE(scheduled[0].first, before + 1s);
        EXPECT_LE(scheduled[0].first, after + 1s);
    }
    EXPECT_TRUE(center->posted().empty());
    scheduled[0].second();
    EXPECT_EQ(center->posted(), std::vector<std::string>{"databaseUpdatedNotification"});

    // A scheduler that refuses the job makes the observation fail; the save itself stands.
    capture.clear();
    {
        InstalledScheduler installed(
            [](MainQueue::Clock::time_point, MainQueue::Job) { throw std::runtime_error("main queue unavailable"); });
        store->save(makeInfo(2));
    }
    EXPECT_EQ(store->notificationsCount(), 2);
    auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].level, LogLevel::error);
    EXPECT_TRUE(entries[0].loggerPath.ends_with("notifications-database")) << entries[0].loggerPath;
    EXPECT_EQ(entries[0].message, "Database observation error: main queue unavailable");

    // A failed observation is not restarted: the store goes on working without notices.
    store->save(makeInfo(3));
    EXPECT_EQ(store->notificationsCount(), 3);
    EXPECT_EQ(MainQueue::main().pendingCount(), 0U);
    EXPECT_EQ(capture.entries().size(), 1U);

    auto another = NotificationDatabaseImpl::create(config());
    another->save(makeInfo(4));
    std::weak_ptr<NotificationDatabaseImpl> weak = another;
    store.reset();
    another.reset();
    EXPECT_TRUE(weak.expired());
    // Leaving WAL mode needs the file to itself: every connection of the stores is closed.
    EXPECT_EQ(RawDatabase(file).scalar("PRAGMA journal_mode = DELETE"), "delete");
    EXPECT_EQ(postsAfterDraining(), 1U);
}

TEST_F(StoreLifecycleTest, AnotherProcesssSavesAreHeardOnTheSessionBus) {
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address == nullptr || *address == '\0') {
        GTEST_SKIP() << "DBUS_SESSION_BUS_ADDRESS is not set; run the tests under dbus-run-session";
    }
    DistributedNotificationCenter::setDefaultCenter(nullptr);
    std::atomic<int> heard{0};
    auto token =
        DistributedNotificationCenter::defaultCenter()->addObserver(databaseUpdated(), [&](const std::string& name) {
            if (name == "databaseUpdatedNotification") ++heard;
        });
    ASSERT_NE(token, nullptr);
    // This process's own store on the same file announces only its own writes.
    auto store = NotificationDatabaseImpl::create(config());

    ChildProcess writer(childProgram("save_notifications"), {file.string(), "2"});
    EXPECT_EQ(writer.readLine(), "saved 2");
    EXPECT_EQ(writer.wait(), 0);
    const auto giveUp = MainQueue::Clock::now() + 10s;
    while (heard < 2 && MainQueue::Clock::now() < giveUp) MainQueue::main().runFor(10ms);
    // At least the child's two: the suite's other tests share this bus and may post as well.
    EXPECT_GE(heard, 2);
    EXPECT_EQ(store->notificationsCount(), 2);
}

}  // namespace
}  // namespace notificationdb
