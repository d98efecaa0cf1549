// The updater: what a received batch hands to the store, and the pruning rules (age limit and
// per-customer limit), first over a store that only records its calls, then over a real store.

#include <NotificationDatabase/NotificationUpdater/NotificationUpdaterImpl.hpp>

#include "TestSupport.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>

namespace notificationdb {
namespace {

using namespace testing;
using namespace std::chrono_literals;
using ::testing::_;
using ::testing::Eq;
using ::testing::Return;
using ::testing::SaveArg;

// The instant the updater under test takes as "now".
const Timestamp now = at("2025-06-01 12:00:00.000");
const Timestamp cutOff = now - NotificationUpdaterImpl::ageLimit;

NotificationModelInfo makeInfo(std::optional<std::int64_t> id, std::optional<std::string> customer, Timestamp created,
                               std::string title = "", std::optional<std::int64_t> buttonId = std::nullopt) {
    std::optional<NotificationButton> withButton;
    if (buttonId) withButton = NotificationButton(buttonId, "b", "Open", true, id, UserActionKind::openLink, Bytes{1});
    return {note({.id = id, .customer = std::move(customer), .created = created, .title = std::move(title)}),
            std::move(withButton)};
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
    std::shared_ptr<::testing::StrictMock<RecordingStore>> store =
        std::make_shared<::testing::StrictMock<RecordingStore>>();
    NotificationUpdaterImpl updater{store, [] { return now; }};
};

// An empty batch reaches no operation of the store; a batch with equal entries (by id, and
// entries that both lack an id) hands each to save once, the first of the list, and then prunes
// once without deleting when nothing is old or over the limit.
TEST_F(UpdaterOverRecordingStore, ReceiveSavesEachDistinctEntryOnceThenPrunes) {
    updater.receive({});

    std::map<std::optional<std::int64_t>, std::string> saved;
    EXPECT_CALL(*store, save(_)).Times(3).WillRepeatedly([&](const NotificationModelInfo& info) {
        saved[info.notification.id()] = *info.notification.title + (info.actionButton ? " with button" : "");
    });
    EXPECT_CALL(*store, fetchNotifications(Eq(std::nullopt))).WillOnce(Return(std::vector{makeInfo(1, "a", now - 1h)}));
    updater.receive({
        makeInfo(7, "alice", now - 2h, "first with id 7", 70),
        makeInfo(std::nullopt, "alice", now - 3h, "first without id"),
        makeInfo(7, "bob", now - 4h, "second with id 7"),
        makeInfo(8, "alice", now - 5h, "id 8"),
        makeInfo(std::nullopt, "carol", now - 6h, "second without id"),
    });
    EXPECT_EQ(saved, (std::map<std::optional<std::int64_t>, std::string>{
                         {std::nullopt, "first without id"}, {7, "first with id 7 with button"}, {8, "id 8"}}));
}

// One pass collects everything that goes into a single delete call: entries at or before the
// cut-off, and per customer (no customer being a group of its own, the empty text another) all
// but the 100 newest, sorted stably by date whatever the order of the fetched list; a
// notification fetched once per button row counts once per row.
TEST_F(UpdaterOverRecordingStore, CleanUpDeletesOldAndOverflowingEntriesInOneCall) {
    std::vector<NotificationModelInfo> fetched;
    // "alice": 101 entries, handed over oldest first; the oldest (id 101) carries button 77.
    for (int i = 101; i >= 1; --i) {
        fetched.push_back(
            makeInfo(i, "alice", now - std::chrono::minutes(i), "", i == 101 ? 77 : std::optional<std::int64_t>()));
    }
    // "bob": 102 entries with one date; the last two in fetch order are the ones beyond 100.
    for (int i = 201; i <= 302; ++i) fetched.push_back(makeInfo(i, "bob", now - 1h));
    // No customer: 101 entries; the empty customer text: 100 entries, a group of its own.
    for (int i = 401; i <= 501; ++i) fetched.push_back(makeInfo(i, std::nullopt, now - std::chrono::minutes(i)));
    for (int i = 601; i <= 700; ++i) fetched.push_back(makeInfo(i, "", now - std::chrono::minutes(i)));
    // "carol": exactly at the cut-off goes; a millisecond younger and the future stay.
    for (const auto& [id, created] : {std::pair{900, cutOff}, {901, cutOff + 1ms}, {902, now + 24h}}) {
        fetched.push_back(makeInfo(id, "carol", created));
    }
    // "dave": 100 notifications, one of them joined with two button rows, so 101 rows.
    for (int i = 1001; i <= 1100; ++i) {
        fetched.push_back(makeInfo(i, "dave", now - std::chrono::minutes(i - 1000), "", i));
        if (i == 1050) fetched.push_back(makeInfo(i, "dave", now - std::chrono::minutes(i - 1000), "", 5000));
    }

    NotificationModelInfoSet deleted;
    EXPECT_CALL(*store, fetchNotifications(Eq(std::nullopt))).WillOnce(Return(fetched));
    EXPECT_CALL(*store, deleteNotifications(_)).WillOnce(SaveArg<0>(&deleted));
    updater.cleanUp();

    EXPECT_EQ(idsOf(deleted), (std::set<std::int64_t>{101, 301, 302, 501, 900, 1100}));
    // The store deletes buttons by their own id, so the entry keeps the button it was fetched with.
    const auto oldestOfAlice = deleted.find(makeInfo(101, std::nullopt, now));
    ASSERT_NE(oldestOfAlice, deleted.end());
    EXPECT_EQ(oldestOfAlice->actionButton.value().id(), 77);
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

// Over a real store on disk, whose failures the tests do not expect.
class UpdaterOverStore : public ::testing::Test, protected StoreOnDisk {
protected:
    void SetUp() override { notices.reset(); }
    void TearDown() override { EXPECT_EQ(log.messages(), std::vector<std::string>{}) << "the store logged failures"; }

    // `count` notifications of `customer` with ids from `firstId` on, each with a button, the
    // i-th created `i` minutes before now and titled "<prefix><i>".
    static std::vector<NotificationModelInfo> batch(const std::string& customer, int count, const std::string& prefix,
                                                    std::int64_t firstId) {
        std::vector<NotificationModelInfo> infos;
        for (int i = 0; i < count; ++i) {
            infos.push_back(makeInfo(firstId + i, customer, now - std::chrono::minutes(i), prefix + std::to_string(i)));
            infos.back().actionButton = button();
        }
        return infos;
    }
    // Titles of the stored notifications per customer.
    std::map<std::string, std::set<std::string>> storedTitles() const {
        std::map<std::string, std::set<std::string>> titles;
        for (const auto& info : store->fetchNotifications(std::nullopt)) {
            titles[info.notification.customerId().value_or("-")].insert(info.notification.title.value_or(""));
        }
        return titles;
    }

    NotificationUpdaterImpl updater{store, [] { return now; }};
};

// 150 recent notifications of one customer: the 100 newest stay with their buttons, the 50
// oldest go with theirs; another customer's notifications are untouched. Every stored save and
// the one pruning delete each lead to their own change notice.
TEST_F(UpdaterOverStore, KeepsTheHundredNewestOfACustomerWithTheirButtons) {
    auto infos = batch("alice", 150, "a", 1000);
    for (auto& info : batch("bob", 10, "b", 2000)) infos.push_back(std::move(info));
    updater.receive(infos);

    std::set<std::string> newest;
    for (int i = 0; i < 100; ++i) newest.insert("a" + std::to_string(i));
    EXPECT_EQ(storedTitles(),
              (std::map<std::string, std::set<std::string>>{
                  {"alice", newest}, {"bob", {"b0", "b1", "b2", "b3", "b4", "b5", "b6", "b7", "b8", "b9"}}}));
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM notificationButton"), "110");
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM notificationButton WHERE notificationId NOT IN "
                         "(SELECT id FROM notification)"),
              "0");
    EXPECT_EQ(notices.count(), 160 + 1);
}

// A notification received already older than 30 days is stored and pruned by the same call,
// each transaction with its notice.
TEST_F(UpdaterOverStore, AgeLimitAppliesToTheReceivedBatchItself) {
    updater.receive({makeInfo(3, "grace", now + 24h * 365, "next year")});
    notices.reset();
    updater.receive({makeInfo(std::nullopt, "heidi", now - 24h * 40, "forty days old")});
    EXPECT_EQ(storedTitles(), (std::map<std::string, std::set<std::string>>{{"grace", {"next year"}}}));
    EXPECT_EQ(notices.count(), 2);
}

}  // namespace
}  // namespace notificationdb
