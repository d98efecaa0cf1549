// The store as an object: creation on a configuration, and the change notice that follows every
// committed change of the stored notifications.

#include <NotificationDatabase/Platform/DistributedNotificationCenter.hpp>

#include "TestSupport.hpp"

#include <gtest/gtest.h>

namespace notificationdb {
namespace {

namespace fs = std::filesystem;
using namespace testing;
using namespace std::chrono_literals;

// A center that writes down what is posted (on the main queue's thread) and observes nothing.
struct RecordingCenter final : DistributedNotificationCenter {
    void post(const std::string& name) override { posted.push_back(name); }
    std::unique_ptr<ObserverToken> addObserver(const std::string&, Handler) override { return nullptr; }
    std::vector<std::string> posted;
};

// A notification with a content key of its own, so that no save skips it.
NotificationModelInfo makeInfo(int n, bool withButton = false) {
    return {note({.customer = "customer-" + std::to_string(n),
                  .version = "1." + std::to_string(n),
                  .kind = NotificationKind::newApp,
                  .appId = n}),
            withButton ? std::optional(button()) : std::nullopt};
}

// Routes the main queue's jobs to `scheduler` for the lifetime of the object.
struct InstalledScheduler {
    explicit InstalledScheduler(MainQueue::Scheduler scheduler) {
        MainQueue::main().setScheduler(std::move(scheduler));
    }
    ~InstalledScheduler() { MainQueue::main().setScheduler({}); }
};

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

    NotificationDatabaseConfig config(const Configuration& configuration = writerConfiguration()) const {
        return {NotificationDatabaseConfig::createDatabaseURl("NotificationDatabase.sqlite"), configuration};
    }
    // Runs the main queue until no job is left; returns the posts made meanwhile.
    std::size_t postsAfterDraining() {
        const std::size_t before = center->posted.size();
        MainQueue::main().runUntilIdle();
        return center->posted.size() - before;
    }
    void expectOneStoreError(const std::string& message) {
        const auto entries = capture.entries();
        ASSERT_EQ(entries.size(), 1U);
        EXPECT_EQ(entries[0].level, LogLevel::error);
        EXPECT_TRUE(entries[0].loggerPath.ends_with("notifications-database")) << entries[0].loggerPath;
        EXPECT_EQ(entries[0].message, message);
    }

    TemporaryDirectory home;
    ScopedEnvironment homeVariable{"HOME", home.path().string()};
    ScopedEnvironment dataHomeVariable{"XDG_DATA_HOME", (home / "data").string()};
    const fs::path file = home / "data" / "Vantro" / "Default" / "Databases" / "NotificationDatabase.sqlite";
    std::shared_ptr<RecordingCenter> center = std::make_shared<RecordingCenter>();
    LogCapture capture;
};

// Creation makes the file with its tables and announces nothing. A read-only store on the file
// reads what others write, and its failing save announces nothing either.
TEST_F(StoreLifecycleTest, CreationMakesTheTablesAndPostsNothing) {
    auto store = NotificationDatabaseImpl::create(config());
    EXPECT_EQ(RawDatabase(file).query("SELECT name FROM sqlite_master WHERE name LIKE 'notification%' ORDER BY name"),
              (Rows{{"notification"}, {"notificationButton"}, {"notificationButton_on_notificationId"}}));
    EXPECT_EQ(MainQueue::main().pendingCount(), 0U);

    auto reader = NotificationDatabaseImpl::create(config(readerConfiguration()));
    store->save(makeInfo(1));
    EXPECT_EQ(reader->notificationsCount(), 1);
    reader->save(makeInfo(2));
    EXPECT_EQ(store->notificationsCount(), 1);
    EXPECT_EQ(postsAfterDraining(), 1U);
}

TEST_F(StoreLifecycleTest, EveryCommittedChangeOfNotificationsPostsOneNotice) {
    auto store = NotificationDatabaseImpl::create(config());
    store->save(makeInfo(1, true));
    store->save(makeInfo(2, true));
    store->save(makeInfo(3));
    EXPECT_TRUE(center->posted.empty()) << "posted before the delay";
    EXPECT_EQ(postsAfterDraining(), 3U);
    EXPECT_EQ(center->posted, std::vector<std::string>(3, "databaseUpdatedNotification"));

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
        InstalledScheduler installed([&](auto deadline, MainQueue::Job job) { scheduled.emplace_back(deadline, job); });
        const auto before = MainQueue::Clock::now();
        store->save(makeInfo(1));
        const auto after = MainQueue::Clock::now();
        ASSERT_EQ(scheduled.size(), 1U);
        EXPECT_GE(scheduled[0].first, before + 1s);
        EXPECT_LE(scheduled[0].first, after + 1s);
    }
    EXPECT_TRUE(center->posted.empty());
    scheduled[0].second();
    EXPECT_EQ(center->posted, std::vector<std::string>{"databaseUpdatedNotification"});

    // A scheduler that refuses the job makes the observation fail; the save itself stands.
    capture.clear();
    {
        InstalledScheduler installed([](auto, auto) { throw std::runtime_error("main queue unavailable"); });
        store->save(makeInfo(2));
    }
    EXPECT_EQ(store->notificationsCount(), 2);
    expectOneStoreError("Database observation error: main queue unavailable");

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
    if (!haveSessionBus()) GTEST_SKIP() << "DBUS_SESSION_BUS_ADDRESS is not set; run the tests under dbus-run-session";
    DistributedNotificationCenter::setDefaultCenter(nullptr);
    std::atomic<int> heard{0};
    auto token = DistributedNotificationCenter::defaultCenter()->addObserver(
        databaseUpdated(), [&](const std::string& name) { heard += name == "databaseUpdatedNotification"; });
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
