#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/NotificationDatabaseConfig.hpp>
#include <NotificationDatabase/NotificationUpdater/NotificationUpdaterImpl.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include "TestSupport.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace notificationdb {
namespace {

using namespace std::chrono_literals;
using ::testing::_;
using ::testing::Eq;
using ::testing::Invoke;
using testing::LogCapture;
using testing::RawDatabase;
using ::testing::Return;
using testing::ScopedEnvironment;
using ::testing::StrictMock;
using testing::TemporaryDirectory;

// The instant the updater under test takes as "now".
const Timestamp now = *parseDateText("2025-06-01 12:00:00.000");
const Timestamp cutOff = now - NotificationUpdaterImpl::ageLimit;

NotificationModelInfo makeInfo(std::optional<std::int64_t> id, std::optional<std::string> customerId, Timestamp created,
                               std::string title = "", std::optional<std::int64_t> buttonId = std::nullopt) {
    NotificationModel notification(id, std::move(customerId), created, "1.0", "tag", std::move(title), std::nullopt,
                                   std::nullopt, false, std::nullopt, NotificationStatus::new_,
                                   NotificationKind::default_);
    std::optional<NotificationButton> button;
    if (buttonId) button = NotificationButton(buttonId, "button", "Open", true, id, UserActionKind::openApp, Bytes{1});
    return {std::move(notification), std::move(button)};
}

std::set<std::int64_t> idsOf(const NotificationModelInfoSet& infos) {
    std::set<std::int64_t> ids;
    for (const auto& info : infos) ids.insert(info.notification.id().value_or(-1));
    return ids;
}

// A store that only records what it is asked; any call not expected fails the test.
class RecordingStore : public NotificationDatabaseProtocol {
public:
    MOCK_METHOD(void, save, (const NotificationModelInfo&), (override));
    MOCK_METHOD(std::vector<NotificationModelInfo>, fetchNotifications, (const std::optional<NotificationIDs>&),
                (override));
    MOCK_METHOD(std::int64_t, notificationsCount, (), (override));
    MOCK_METHOD(void, updateStatus, (const NotificationIDs&, NotificationStatus), (override));
    MOCK_METHOD(void, updateButtonVisibility, (const NotificationIDs&, bool), (override));
    MOCK_METHOD(void, deleteNotifications, (const NotificationModelInfoSet&), (override));
    MOCK_METHOD(void, deleteAllNotifications, (NotificationKind), (override));
    MOCK_METHOD(void, deleteAll, (), (override));
    MOCK_METHOD(bool, containsVantro, (const std::string&), (override));
    MOCK_METHOD(bool, containsNotification,
                (NotificationKind, const std::string&, std::optional<std::int64_t>, const std::optional<std::string>&),
                (override));
};

class UpdaterOverRecordingStore : public ::testing::Test {
protected:
    std::shared_ptr<StrictMock<RecordingStore>> store = std::make_shared<StrictMock<RecordingStore>>();
    NotificationUpdaterImpl updater{store, [] { return now; }};
};

// An empty batch reaches no operation of the store; a batch with equal entries (by id, and
// entries that both lack an id) hands each to save once, the first of the list, and then prunes
// once without deleting when nothing is old or over the limit.
TEST_F(UpdaterOverRecordingStore, ReceiveSavesEachDistinctEntryOnceThenPrunes) {
    updater.receive({});

    std::vector<NotificationModelInfo> saved;
    EXPECT_CALL(*store, save(_)).WillRepeatedly(Invoke([&](const NotificationModelInfo& info) {
        saved.push_back(info);
    }));
    const std::vector<NotificationModelInfo> stored = {makeInfo(1, "alice", now - 1h)};
    EXPECT_CALL(*store, fetchNotifications(Eq(std::nullopt))).WillOnce(Return(stored));

    updater.receive({
        makeInfo(7, "alice", now - 2h, "first with id 7", 70),
        makeInfo(std::nullopt, "alice", now - 3h, "first without id"),
        makeInfo(7, "bob", now - 4h, "second with id 7"),
        makeInfo(8, "alice", now - 5h, "id 8"),
        makeInfo(std::nullopt, "carol", now - 6h, "second without id"),
    });

    std::map<std::optional<std::int64_t>, std::string> titles;
    for (const auto& info : saved) titles[info.notification.id()] = info.notification.title.value_or("");
    EXPECT_EQ(saved.size(), 3U);
    EXPECT_EQ(titles, (std::map<std::optional<std::int64_t>, std::string>{
                          {std::nullopt, "first without id"}, {7, "first with id 7"}, {8, "id 8"}}));
    const auto withButton =
        std::find_if(saved.begin(), saved.end(), [](const auto& info) { return info.notification.id() == 7; });
    ASSERT_NE(withButton, saved.end());
    ASSERT_TRUE(withButton->actionButton.has_value());
    EXPECT_EQ(withButton->actionButton->id(), 70);
}

// One pass collects everything that goes into a single delete call: entries at or before the
// cut-off, and per customer (no customer being a group of its own, the empty text another) all
// but the 100 newest, sorted stably by date whatever the order of the fetched list; a
// notification fetched once per button row counts once per row.
TEST_F(UpdaterOverRecordingStore, CleanUpDeletesOldAndOverflowingEntriesInOneCall) {
    std::vector<NotificationModelInfo> fetched;
    // "alice": 101 entries, handed over oldest first; the oldest (id 101) carries button 77.
    for (int i = 101; i >= 1; --i) {
        auto button = i == 101 ? std::optional<std::int64_t>(77) : std::nullopt;
        fetched.push_back(makeInfo(i, "alice", now - std::chrono::minutes(i), "", button));
    }
    // "bob": 102 entries with one date; the last two in fetch order are the ones beyond 100.
    for (int i = 201; i <= 302; ++i) fetched.push_back(makeInfo(i, "bob", now - 1h));
    // No customer: 101 entries; the empty customer text: 100 entries, a group of its own.
    for (int i = 401; i <= 501; ++i) fetched.push_back(makeInfo(i, std::nullopt, now - std::chrono::minutes(i)));
    for (int i = 601; i <= 700; ++i) fetched.push_back(makeInfo(i, "", now - std::chrono::minutes(i)));
    // "carol": exactly at the cut-off goes; a millisecond younger and the future stay.
    fetched.push_back(makeInfo(900, "carol", cutOff));
    fetched.push_back(makeInfo(901, "carol", cutOff + 1ms));
    fetched.push_back(makeInfo(902, "carol", now + 24h));
    // "dave": 100 notifications, one of them joined with two button rows, so 101 rows.
    for (int i = 1001; i <= 1100; ++i) {
        fetched.push_back(makeInfo(i, "dave", now - std::chrono::minutes(i - 1000), "", i));
        if (i == 1050) fetched.push_back(makeInfo(i, "dave", now - std::chrono::minutes(i - 1000), "", 5000));
    }

    NotificationModelInfoSet deleted;
    EXPECT_CALL(*store, fetchNotifications(Eq(std::nullopt))).WillOnce(Return(fetched));
    EXPECT_CALL(*store, deleteNotifications(_)).WillOnce(Invoke([&](const NotificationModelInfoSet& infos) {
        deleted = infos;
    }));

    updater.cleanUp();

    EXPECT_EQ(idsOf(deleted), (std::set<std::int64_t>{101, 301, 302, 501, 900, 1100}));
    // The store deletes buttons by their own id, so the entry keeps the button it was fetched with.
    const auto oldestOfAlice = deleted.find(makeInfo(101, std::nullopt, now));
    ASSERT_NE(oldestOfAlice, deleted.end());
    ASSERT_TRUE(oldestOfAlice->actionButton.has_value());
    EXPECT_EQ(oldestOfAlice->actionButton->id(), 77);
}

// Two customers at 80 each and nothing old: the limit is per customer, so no delete call at all.
TEST_F(UpdaterOverRecordingStore, NothingOldAndNoGroupOverTheLimitCallsNoDelete) {
    std::vector<NotificationModelInfo> fetched;
    for (int i = 1; i <= 160; ++i) {
        fetched.push_back(makeInfo(i, i % 2 == 0 ? "erin" : "frank", now - std::chrono::hours(i)));
    }
    fetched.push_back(makeInfo(500, "erin", cutOff + 1ms));
    EXPECT_CALL(*store, fetchNotifications(Eq(std::nullopt))).WillOnce(Return(fetched));
    EXPECT_CALL(*store, deleteNotifications(_)).Times(0);

    updater.cleanUp();
}

// The two interactor operations hand their arguments to the same-named store operation and do
// nothing else: no save, no fetch, no pruning.
TEST_F(UpdaterOverRecordingStore, InteractorOperationsPassThroughUnchanged) {
    const NotificationIDs ids = {3, 1, 2};
    EXPECT_CALL(*store, updateStatus(Eq(ids), NotificationStatus::read));
    EXPECT_CALL(*store, updateStatus(Eq(NotificationIDs{}), NotificationStatus::new_));
    EXPECT_CALL(*store, updateButtonVisibility(Eq(ids), false));
    EXPECT_CALL(*store, updateButtonVisibility(Eq(NotificationIDs{9}), true));

    NotificationInteractor& interactor = updater;
    interactor.updateStatus(ids, NotificationStatus::read);
    interactor.updateStatus({}, NotificationStatus::new_);
    interactor.updateButtonVisibility(ids, false);
    interactor.updateButtonVisibility({9}, true);
}

// --- over a real store on disk -----------------------------------------------------------------

// A store on a file in a fresh directory, with HOME pointing there too. Change notices that the
// store schedules on the main queue are counted and dropped instead of being posted, so that no
// other test hears them.
class UpdaterOverStore : public ::testing::Test {
protected:
    void SetUp() override {
        MainQueue::main().setScheduler([this](MainQueue::Clock::time_point, MainQueue::Job) { ++scheduledNotices; });
        Configuration configuration;
        configuration.busyMode = BusyMode::timeout(2.0);
        store = NotificationDatabaseImpl::create(NotificationDatabaseConfig(databasePath, configuration));
        scheduledNotices = 0;
    }
    void TearDown() override {
        MainQueue::main().setScheduler({});
        EXPECT_EQ(log.messages(), std::vector<std::string>{}) << "the store logged failures";
    }

    // `count` notifications of `customerId` with ids from `firstId` on (entries without id would
    // all be equal), each with a button, the i-th created `i` minutes before now and titled
    // "<prefix><i>".
    static std::vector<NotificationModelInfo> batch(const std::optional<std::string>& customerId, int count,
                                                    const std::string& prefix, std::int64_t firstId) {
        std::vector<NotificationModelInfo> infos;
        for (int i = 0; i < count; ++i) {
            auto info = makeInfo(firstId + i, customerId, now - std::chrono::minutes(i), prefix + std::to_string(i));
            info.actionButton = NotificationButton(std::nullopt, "b", "Open", true, std::nullopt,
                                                   UserActionKind::openLink, Bytes{0, 255});
            infos.push_back(std::move(info));
        }
        return infos;
    }

    // Titles of the stored notifications per customer ("-" for none).
    std::map<std::string, std::set<std::string>> storedTitles() const {
        std::map<std::string, std::set<std::string>> titles;
        for (const auto& info : store->fetchNotifications(std::nullopt)) {
            titles[info.notification.customerId().value_or("-")].insert(info.notification.title.value_or(""));
        }
        return titles;
    }

    static std::set<std::string> titleRange(const std::string& prefix, int from, int to) {
        std::set<std::string> titles;
        for (int i = from; i < to; ++i) titles.insert(prefix + std::to_string(i));
        return titles;
    }

    TemporaryDirectory directory;
    ScopedEnvironment home{"HOME", directory.path().string()};
    ScopedEnvironment dataHome{"XDG_DATA_HOME", (directory.path() / "share").string()};
    LogCapture log;
    std::filesystem::path databasePath = directory.path() / "notifications.sqlite";
    std::atomic<int> scheduledNotices{0};
    std::shared_ptr<NotificationDatabaseImpl> store;
};

// 150 recent notifications of one customer: the 100 newest stay with their buttons, the 50
// oldest go with theirs; another customer's notifications are untouched. Every stored save and
// the one pruning delete each lead to their own change notice.
TEST_F(UpdaterOverStore, KeepsTheHundredNewestOfACustomerWithTheirButtons) {
    NotificationUpdaterImpl updater(store, [] { return now; });
    auto infos = batch("alice", 150, "a", 1000);
    auto others = batch("bob", 10, "b", 2000);
    infos.insert(infos.end(), others.begin(), others.end());

    updater.receive(infos);

    EXPECT_EQ(store->notificationsCount(), 110);
    const auto titles = storedTitles();
    EXPECT_EQ(titles.at("alice"), titleRange("a", 0, 100));
    EXPECT_EQ(titles.at("bob"), titleRange("b", 0, 10));
    RawDatabase raw(databasePath);
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM notificationButton"), "110");
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM notificationButton WHERE notificationId NOT IN "
                         "(SELECT id FROM notification)"),
              "0");
    EXPECT_EQ(scheduledNotices.load(), 160 + 1);
}

// Notifications without a customer are limited as one group, apart from every customer and
// from the empty customer text.
TEST_F(UpdaterOverStore, NotificationsWithoutCustomerAreLimitedAsTheirOwnGroup) {
    NotificationUpdaterImpl updater(store, [] { return now; });
    auto infos = batch(std::nullopt, 105, "n", 1000);
    for (const auto& group : {batch("carol", 100, "c", 2000), batch("", 3, "e", 3000)}) {
        infos.insert(infos.end(), group.begin(), group.end());
    }

    updater.receive(infos);

    const auto titles = storedTitles();
    EXPECT_EQ(titles.at("-"), titleRange("n", 0, 100));
    EXPECT_EQ(titles.at("carol"), titleRange("c", 0, 100));
    EXPECT_EQ(titles.at(""), titleRange("e", 0, 3));
    EXPECT_EQ(store->notificationsCount(), 203);
}

// Two customers with 80 each: nothing goes, and a later pruning pass writes nothing at all, so
// it causes no change notice.
TEST_F(UpdaterOverStore, LimitIsPerCustomer) {
    NotificationUpdaterImpl updater(store, [] { return now; });
    auto infos = batch("dave", 80, "d", 1000);
    auto others = batch("erin", 80, "e", 2000);
    infos.insert(infos.end(), others.begin(), others.end());
    updater.receive(infos);
    EXPECT_EQ(store->notificationsCount(), 160);

    scheduledNotices = 0;
    updater.cleanUp();
    EXPECT_EQ(store->notificationsCount(), 160);
    EXPECT_EQ(scheduledNotices.load(), 0);
}

// Exactly 30 days old goes, a millisecond younger stays, and a date in the future is never old.
// A notification received already older than 30 days is stored and pruned by the same call,
// each transaction with its notice; a duplicate id in the batch keeps the first entry.
TEST_F(UpdaterOverStore, AgeLimitAppliesAtTheCutOffAndToTheReceivedBatchItself) {
    NotificationUpdaterImpl updater(store, [] { return now; });
    updater.receive({
        makeInfo(1, "frank", cutOff, "exactly 30 days"),
        makeInfo(2, "frank", cutOff + 1ms, "a millisecond younger"),
        makeInfo(3, "grace", now + 24h * 365, "next year"),
        makeInfo(40, "grace", now - 1h, "first with id 40"),
        makeInfo(40, "grace", now - 2h, "second with id 40"),
    });
    const auto titles = storedTitles();
    EXPECT_EQ(titles.at("frank"), std::set<std::string>{"a millisecond younger"});
    EXPECT_EQ(titles.at("grace"), (std::set<std::string>{"next year", "first with id 40"}));

    scheduledNotices = 0;
    updater.receive({makeInfo(std::nullopt, "heidi", now - 24h * 40, "forty days old")});
    EXPECT_EQ(storedTitles().count("heidi"), 0U);
    EXPECT_EQ(store->notificationsCount(), 3);
    EXPECT_EQ(scheduledNotices.load(), 2);
}

}  // namespace
}  // namespace notificationdb
