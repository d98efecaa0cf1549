// Where the database lives, what a new one holds, and the platform services beneath the store.

#include "Testing.hpp"

#include <NotificationDatabase/DatabaseUpdateObserver.hpp>
#include <NotificationDatabase/Platform/DistributedNotificationCenter.hpp>
#include <NotificationDatabase/Version.hpp>

#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <iostream>
#include <thread>

namespace notificationdb {
namespace {

using namespace std::chrono_literals;
using Rows = std::vector<std::vector<std::string>>;

// The ready-made configurations name one file below the user's data directory (the tool's `path` row
// follows XDG_DATA_HOME and HOME) and build its folder on first use; a new store there gets exactly
// these tables in WAL mode, and a file holding one table gets the other.
TEST(Setup, TheReadyMadeConfigurationsAndTheSchemaOfANewFile) {
    testing::TemporaryDirectory home;
    ::setenv("XDG_DATA_HOME", (home / "data").c_str(), 1);
    const auto folder = home / "data/Vantro/Default/Databases";
    // The name is appended as it is, even when it looks like a path of its own.
    EXPECT_EQ(NotificationDatabaseConfig::createDatabaseURl("/abs/evil.sqlite").string(),
              folder.string() + "//abs/evil.sqlite");
    EXPECT_FALSE(std::filesystem::exists(home / "data")) << "naming a file made a directory";

    testing::LogCapture log;
    const auto& writer = NotificationDatabaseConfig::default_();
    const auto& reader = NotificationDatabaseConfig::readOnly();
    EXPECT_EQ(writer.storageURL(), folder / "NotificationDatabase.sqlite");
    EXPECT_EQ(reader.storageURL(), writer.storageURL());
    EXPECT_TRUE(std::filesystem::is_directory(folder));
    EXPECT_FALSE(std::filesystem::exists(writer.storageURL()));
    for (const auto& [config, readOnly] : {std::pair{&writer, false}, std::pair{&reader, true}}) {
        EXPECT_EQ(config->configuration().readOnly, readOnly);
        EXPECT_EQ(config->configuration().persistentReadOnlyConnections, readOnly);
        EXPECT_EQ(config->configuration().busyMode.kind(), BusyMode::Kind::timeout);
        EXPECT_EQ(config->configuration().busyMode.seconds(), 2.0);
    }
    testing::TestServices services;
    auto store = NotificationDatabaseImpl::create(writer, services.services());
    const testing::RawDatabase raw(writer.storageURL());
    EXPECT_EQ(raw.query("PRAGMA journal_mode"), Rows{{"wal"}});
    EXPECT_EQ(
        raw.query("SELECT type, name, sql FROM sqlite_master WHERE name NOT LIKE 'sqlite%' ORDER BY name"),
        (Rows{{"table", "notification",
               R"(CREATE TABLE "notification" ("id" INTEGER PRIMARY KEY AUTOINCREMENT, "customerId" TEXT, )"
               R"("createdDate" DATETIME NOT NULL, "version" TEXT NOT NULL, "analyticsTag" TEXT NOT NULL, )"
               R"("title" TEXT, "body" TEXT, "bannerUrl" TEXT, "isMarketing" BOOLEAN NOT NULL, )"
               R"("appId" INTEGER, "status" INTEGER NOT NULL, "notificationKind" INTEGER NOT NULL))"},
              {"table", "notificationButton",
               R"(CREATE TABLE "notificationButton" ("id" INTEGER PRIMARY KEY AUTOINCREMENT, "buttonId" TEXT, )"
               R"("title" TEXT, "visible" BOOLEAN NOT NULL, "notificationId" INTEGER REFERENCES )"
               R"("notification"("id") ON DELETE CASCADE, "actionKind" INTEGER, "userAction" BLOB))"},
              {"index", "notificationButton_on_notificationId",
               R"(CREATE INDEX "notificationButton_on_notificationId" ON "notificationButton"("notificationId"))"}}));
    EXPECT_TRUE(services.takeJobs().empty()) << "creating the tables posted";

    const auto partial = home / "partial.sqlite";
    testing::RawDatabase(partial).execute("CREATE TABLE Notification (id INTEGER PRIMARY KEY, odd TEXT)");
    NotificationDatabaseImpl::create(NotificationDatabaseConfig(partial, Configuration{}));
    EXPECT_EQ(testing::RawDatabase(partial).query("SELECT name FROM sqlite_master WHERE type != 'index' ORDER BY name"),
              (Rows{{"Notification"}, {"notificationButton"}, {"sqlite_sequence"}}));
    EXPECT_TRUE(log.take().empty());
    EXPECT_STREQ(reinterpret_cast<const char*>(NotificationDatabaseVersionString),
                 "@(#)PROGRAM:NotificationDatabase  PROJECT:Modules-159\n");
    EXPECT_EQ(NotificationDatabaseVersionNumber, 159.0);
}

// Raw values are positions in the stored lists; strict construction knows exactly those, the lenient
// ones fall back to `new` and `default`; case names read in any letter case.
TEST(Setup, EnumerationsAndTheirRawValues) {
    using S = NotificationStatus;
    using K = NotificationKind;
    using A = UserActionKind;
    using testing::storedStatuses, testing::storedKinds, testing::storedActions;
    const std::string actionNames[]{"openCabinet",     "openApp",    "openCollection",      "openLink",
                                    "openBlogArticle", "openVantro", "refreshInstalledApps"};
    const auto at = [](const auto& cases, std::int64_t raw) {
        return raw >= 0 && raw < std::ssize(cases) ? std::optional(cases[std::size_t(raw)]) : std::nullopt;
    };
    for (std::int64_t raw = -5; raw <= 8; ++raw) {
        EXPECT_EQ(fromRawValue<S>(raw), at(storedStatuses, raw)) << raw;
        EXPECT_EQ(fromRawValue<K>(raw), at(storedKinds, raw)) << raw;
        EXPECT_EQ(fromRawValue<A>(raw), at(storedActions, raw)) << raw;
        EXPECT_EQ(makeUserActionKind(raw), at(storedActions, raw)) << raw;
        EXPECT_EQ(makeNotificationStatus(raw), raw == 1 ? S::shown : raw == 2 ? S::read : S::new_) << raw;
        EXPECT_EQ(makeNotificationKind(raw), at(storedKinds, raw).value_or(K::default_)) << raw;
        if (const auto action = at(storedActions, raw)) {
            EXPECT_EQ(rawValue(*action), raw);
            EXPECT_EQ(fromCaseName<A>(actionNames[std::size_t(raw)]), action);
        }
    }
    EXPECT_EQ(fromCaseName<K>("NEWAPP"), K::newApp);
    EXPECT_EQ(fromCaseName<S>("new"), S::new_);
    EXPECT_EQ(fromCaseName<S>("reads"), std::nullopt);
}

// Jobs run in deadline order, then scheduling order; `runFor` leaves later ones, `stop` ends a drive,
// a throwing job is logged, an installed scheduler takes later jobs. An update observer runs its
// handler on its queue, only while it lives.
TEST(Platform, MainQueueRunsJobsInDeadlineOrderAndObserversOnlyWhileTheyLive) {
    testing::LogCapture log;
    MainQueue queue;
    std::string order;
    for (const auto& [name, delay] : std::vector<std::pair<char, MainQueue::Clock::duration>>{
             {'c', 30ms}, {'a', 0ms}, {'b', 0ms}, {'z', -1s}, {'d', 10min}}) {
        queue.asyncAfter(delay, [&order, name] { order += name; });
    }
    queue.asyncAfter(40ms, [] { throw std::runtime_error("broken job"); });
    EXPECT_EQ(queue.runFor(200ms), 5U);
    EXPECT_EQ(order, "abzc");
    EXPECT_EQ(queue.pendingCount(), 1U);
    queue.asyncAfter(0ms, [&queue] { queue.stop(); });
    EXPECT_EQ(queue.runUntilIdle(), 1U);
    EXPECT_EQ(queue.pendingCount(), 1U) << "stop did not end the drive";
    const auto logged = log.take();
    ASSERT_EQ(logged.size(), 1U);
    EXPECT_EQ(logged[0].message, "Main queue job failed: broken job");

    MainQueue observing;
    auto center = std::make_shared<testing::TestCenter>();
    int heard = 0;
    auto observer = std::make_optional<DatabaseUpdateObserver>([&heard] { ++heard; }, center, observing);
    ASSERT_EQ(center->observed.at(0).first, "databaseUpdatedNotification");
    const auto deliver = [&] { center->observed[0].second(center->observed[0].first); };  // as the center does
    deliver();
    EXPECT_EQ(observing.runUntilIdle(), 1U) << "the handler did not wait for its queue";
    deliver();
    observer.reset();
    observing.runUntilIdle();
    EXPECT_EQ(heard, 1) << "a notice ran after its observer ended";

    int routed = 0;
    queue.setScheduler([&routed](auto, auto) { ++routed; });
    queue.asyncAfter(0ms, [] {});
    EXPECT_EQ(routed, 1);
    EXPECT_EQ(queue.pendingCount(), 1U);
}

// Without a bus, or for a name D-Bus cannot carry, a post is dropped and an observer refused, logged.
TEST(Platform, NoticesWithoutABusAreLoggedAndDropped) {
    testing::LogCapture log;
    ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    auto center = makeDBusNotificationCenter();
    for (int i = 0; i < 3; ++i) center->post("ndbNoBus");
    EXPECT_EQ(center->addObserver("has-dash", [](const auto&) {}), nullptr);
    EXPECT_EQ(center->addObserver("ndbNoBus", [](const auto&) {}), nullptr);
    EXPECT_FALSE(DatabaseUpdateObserver([] {}, center).isObserving());
    std::vector<std::string> messages;
    for (const auto& entry : log.take()) messages.push_back(entry.message.substr(0, entry.message.find(": ")));
    EXPECT_EQ(messages,
              (std::vector<std::string>{"Unable to post distributed notification ndbNoBus",
                                        "Unable to observe distributed notification has-dash",
                                        "Unable to observe distributed notification ndbNoBus",
                                        "Unable to observe distributed notification databaseUpdatedNotification"}));
}

// While a post hangs, writes go on and record their notices. Posting at exit sends the pending
// notices at once (also when the post itself writes), and their jobs then post nothing. A job due
// before an earlier one posts the earlier notice first.
TEST(Platform, WritersNeverWaitForAPostAndNoticesGoOutOnce) {
    testing::TemporaryDirectory directory;
    testing::TestServices test;
    const auto& center = test.center;
    center->hang = true;
    const NotificationDatabaseConfig config(directory / "db.sqlite", Configuration{});
    auto store = NotificationDatabaseImpl::create(config, test.services());
    auto second = NotificationDatabaseImpl::create(config, test.services());
    using testing::notification;
    // Runs `work`, which must finish: a wait for the hanging post would never end, so say what waited.
    const auto mustFinish = [](auto&& work, const char* what) {
        auto done = std::async(std::launch::async, work);
        if (done.wait_for(20s) == std::future_status::ready) return;
        std::cerr << what << " (still waiting after 20 s)\n";
        std::_Exit(1);
    };
    store->save(notification(1));
    auto jobs = test.takeJobs();
    ASSERT_EQ(jobs.size(), 1U);
    std::thread mainQueue(jobs[0].second);
    {
        std::unique_lock lock(center->mutex);
        center->changed.wait(lock, [&] { return center->posts == 1; });
    }
    mustFinish(
        [&] {
            store->save(notification(2));
            second->deleteNotifications({notification(1)});
        },
        "a write waited for the post");
    center->release();
    mainQueue.join();
    center->whenPosting = [&] { store->save(notification(3)); };
    mustFinish([&] { NotificationDatabaseImpl::postPendingNotices(); }, "a post that writes waited");
    EXPECT_EQ(store->notificationsCount(), 2);
    // The first save's, the second's, the deletion's, and that of the save made while posting.
    EXPECT_EQ(center->posts, 4);
    jobs = test.takeJobs();
    ASSERT_EQ(jobs.size(), 3U);
    for (const auto& job : jobs) job.second();
    NotificationDatabaseImpl::postPendingNotices();
    EXPECT_EQ(center->posts, 4) << "a notice posted at once went out again";
    center->whenPosting = nullptr;
    store->save(notification(4));
    second->save(notification(5));
    jobs = test.takeJobs();
    ASSERT_EQ(jobs.size(), 2U);
    jobs[1].second();
    EXPECT_EQ(center->posts, 6) << "the job due later did not post the earlier notice";
    jobs[0].second();
    EXPECT_EQ(center->posts, 6);
}

}  // namespace
}  // namespace notificationdb
