#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/NotificationDatabaseConfig.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include "TestSupport.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace notificationdb {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;
using Rows = std::vector<std::vector<std::string>>;

constexpr std::int64_t kMaxID = std::numeric_limits<std::int64_t>::max();
const std::string kNoTable = "SQLite error 1 (SQLITE_ERROR): no such table: notification";
const std::string kRefused = "SQLite error 19 (SQLITE_CONSTRAINT_TRIGGER): refused";
const std::string kLocked = "SQLite error 5 (SQLITE_BUSY): database is locked";

Timestamp at(std::string_view text) {
    return parseDateText(text).value();
}

NotificationModel note(std::optional<std::int64_t> id, NotificationKind kind = NotificationKind::default_,
                       std::optional<std::string> customer = "customer", std::string version = "1.0",
                       std::optional<std::int64_t> appId = std::nullopt, Timestamp created = at("2024-03-05"),
                       std::optional<std::string> title = "title") {
    return {id,
            std::move(customer),
            created,
            std::move(version),
            "tag",
            std::move(title),
            "body",
            std::nullopt,
            false,
            appId,
            NotificationStatus::new_,
            kind};
}

NotificationButton button(std::optional<std::int64_t> id = std::nullopt, std::string title = "Open") {
    return {id, "button", std::move(title), true, std::nullopt, UserActionKind::openApp, Bytes{1, 2}};
}

// Keeps the store's change notices off the process's main queue while a test runs.
struct SwallowedNotices {
    SwallowedNotices() {
        MainQueue::main().setScheduler([](MainQueue::Clock::time_point, MainQueue::Job) {});
    }
    ~SwallowedNotices() { MainQueue::main().setScheduler({}); }
};

class StoreOperations : public ::testing::Test {
protected:
    std::string count(const std::string& table, const std::string& where = "1") const {
        return raw.scalar("SELECT COUNT(*) FROM \"" + table + "\" WHERE " + where);
    }
    Rows column(const std::string& table, const std::string& name) const {
        return raw.query("SELECT id, " + name + " FROM \"" + table + "\" ORDER BY id");
    }
    Rows everything() const {
        auto rows = raw.query("SELECT * FROM notification ORDER BY id");
        const auto buttons = raw.query("SELECT * FROM notificationButton ORDER BY id");
        rows.insert(rows.end(), buttons.begin(), buttons.end());
        return rows;
    }
    // The messages logged since the last call, each of which must be at the error level.
    std::vector<std::string> takeMessages() {
        for (const auto& entry : log.entries()) EXPECT_EQ(entry.level, LogLevel::error) << entry.message;
        auto messages = log.messages();
        log.clear();
        return messages;
    }

    SwallowedNotices notices;
    testing::TemporaryDirectory directory;
    testing::LogCapture log;
    std::filesystem::path file = directory / "db.sqlite";
    std::shared_ptr<NotificationDatabaseImpl> store =
        NotificationDatabaseImpl::create(NotificationDatabaseConfig(file, Configuration{}));
    testing::RawDatabase raw{file};
};

std::vector<std::int64_t> idsOf(const std::vector<NotificationModelInfo>& infos) {
    std::vector<std::int64_t> ids;
    for (const auto& info : infos) ids.push_back(info.notification.id().value_or(-1));
    return ids;
}

// A notification is stored under the id it brings, or a new one; its button points at that id.
// One whose id is stored already changes nothing at all, its button included.
TEST_F(StoreOperations, SaveKeepsGivenIdsAndSkipsStoredOnes) {
    store->save({note(5, NotificationKind::appUpdate), button(std::nullopt, "first")});
    const Rows before = everything();
    store->save({note(5, NotificationKind::default_, "someone else", "2.0", 3, at("2025-01-01"), "changed"),
                 button(1, "replaced")});
    store->save({note(5)});
    EXPECT_EQ(everything(), before);

    store->save({note(9), button()});
    store->save({note(-3), button()});
    NotificationModelInfo idLess(note(std::nullopt), button());
    idLess.actionButton->notificationId = 12345;
    store->save(idLess);
    EXPECT_EQ(idLess.notification.id(), std::nullopt);
    EXPECT_EQ(idLess.actionButton->id(), std::nullopt);
    EXPECT_EQ(idLess.actionButton->notificationId, 12345);
    store->save({note(kMaxID), button()});

    EXPECT_EQ(raw.query("SELECT notificationId, id FROM notificationButton ORDER BY id"),
              (Rows{{"5", "1"}, {"9", "2"}, {"-3", "3"}, {"10", "4"}, {std::to_string(kMaxID), "5"}}));
    EXPECT_THAT(idsOf(store->fetchNotifications(NotificationIDs{-3, kMaxID, 10, 4})),
                UnorderedElementsAre(-3, kMaxID, 10));
    EXPECT_TRUE(takeMessages().empty());
}

// The content key (customer, kind, version, app) finds a stored notification whatever its status,
// texts or date; NULL customers match only NULL; an absent app matches any app.
TEST_F(StoreOperations, SaveSkipsContentDuplicatesOfStoredNotifications) {
    const auto stores = [this](NotificationModel notification) {
        const std::string before = count("notification");
        store->save({std::move(notification), button()});
        return count("notification") != before;
    };
    using K = NotificationKind;
    const std::nullopt_t none = std::nullopt;

    EXPECT_TRUE(stores(note(none, K::default_, "c1", "v1", 1)));
    EXPECT_TRUE(stores(note(none, K::default_, "c1", "v1", 1))) << "default notifications are never duplicates";
    EXPECT_TRUE(stores(note(none, K::newApp, "c1", "v1", 10)));
    raw.execute("UPDATE notification SET status = 2 WHERE notificationKind = 1");
    EXPECT_FALSE(stores(note(none, K::newApp, "c1", "v1", 10, at("2025-01-01"), "another title")));
    EXPECT_FALSE(stores(note(77, K::newApp, "c1", "v1", 10))) << "a new id does not make it new";
    EXPECT_TRUE(stores(note(none, K::appUpdate, "c1", "v1", 10)));
    EXPECT_FALSE(stores(note(none, K::newApp, "c1", "v1", none))) << "no app matches any app";
    EXPECT_TRUE(stores(note(none, K::newApp, "c1", "v1", 11)));
    EXPECT_TRUE(stores(note(none, K::newApp, "c1", "V1", 10))) << "versions compare case-sensitively";
    EXPECT_TRUE(stores(note(none, K::newApp, "C1", "v1", 10))) << "customers compare case-sensitively";

    EXPECT_TRUE(stores(note(none, K::ai, "c2", "v1", none)));
    EXPECT_FALSE(stores(note(none, K::ai, "c2", "v1", none))) << "no app matches a NULL app";
    EXPECT_TRUE(stores(note(none, K::ai, "c2", "v1", 5))) << "a given app never matches NULL";
    EXPECT_FALSE(stores(note(none, K::ai, "c2", "v1", 5)));

    EXPECT_TRUE(stores(note(none, K::vantroUpdate, none, "v2", none)));
    EXPECT_FALSE(stores(note(none, K::vantroUpdate, none, "v2", none))) << "no customer matches a NULL customer";
    EXPECT_TRUE(stores(note(none, K::vantroUpdate, "c1", "v2", none))) << "a customer never matches NULL";
    EXPECT_TRUE(stores(note(none, K::appUpdate, "c3", "v3", none)));
    EXPECT_TRUE(stores(note(none, K::appUpdate, none, "v3", none))) << "no customer matches only NULL";
    EXPECT_TRUE(stores(note(none, K::appUpdate, "", "v3", none))) << "an empty customer is not NULL";
    EXPECT_FALSE(stores(note(none, K::appUpdate, "", "v3", none)));

    // The first of two equivalent notifications stays, whether it is the older or the newer one.
    EXPECT_TRUE(stores(note(none, K::newApp, "a", "1", 1, at("2024-01-01"), "older")));
    EXPECT_FALSE(stores(note(none, K::newApp, "a", "1", 1, at("2024-02-01"), "newer")));
    EXPECT_TRUE(stores(note(none, K::newApp, "b", "1", 1, at("2024-02-01"), "newer")));
    EXPECT_FALSE(stores(note(none, K::newApp, "b", "1", 1, at("2024-01-01"), "older")));
    EXPECT_EQ(raw.query("SELECT customerId, title FROM notification WHERE version = '1' ORDER BY customerId"),
              (Rows{{"a", "older"}, {"b", "newer"}}));

    EXPECT_EQ(count("notificationButton"), count("notification")) << "a skipped notification's button is not written";
    EXPECT_TRUE(takeMessages().empty());
}

// A button that names an existing button row takes that row over for its new notification;
// one that names no row is inserted under its id.
TEST_F(StoreOperations, SaveWritesTheButtonByItsId) {
    store->save({note(std::nullopt), NotificationButton(std::nullopt, "a", "A's", true, std::nullopt,
                                                        UserActionKind::openBlogArticle, Bytes{7})});
    store->save({note(std::nullopt), NotificationButton(1, "b", "B's", false, 1, std::nullopt, std::nullopt)});
    store->save({note(std::nullopt), button(77)});
    store->save({note(std::nullopt)});

    EXPECT_EQ(raw.query("SELECT * FROM notificationButton ORDER BY id"),
              (Rows{{"1", "b", "B's", "0", "2", "NULL", "NULL"}, {"77", "button", "Open", "1", "3", "1", "x'0102'"}}));
    const auto fetched = store->fetchNotifications(NotificationIDs{1, 4});
    ASSERT_EQ(fetched.size(), 2U);
    EXPECT_EQ(fetched[0].actionButton, std::nullopt);
    EXPECT_EQ(fetched[1].actionButton, std::nullopt);
    EXPECT_TRUE(takeMessages().empty());
}

// Whatever fails inside a save takes the whole save back and is logged once; the store stays
// usable.
TEST_F(StoreOperations, AFailingSaveLeavesNothingBehind) {
    raw.execute(
        "CREATE TRIGGER refuseButtons BEFORE INSERT ON notificationButton BEGIN SELECT "
        "RAISE(ABORT, "
        "'refused'); END");
    store->save({note(std::nullopt), button()});
    EXPECT_EQ(count("notification"), "0");
    EXPECT_EQ(count("notificationButton"), "0");
    EXPECT_THAT(takeMessages(), ElementsAre("Unable to save wrapped notification: " + kRefused));

    store->save({note(std::nullopt)});
    EXPECT_EQ(count("notification"), "1");
    EXPECT_TRUE(takeMessages().empty());

    // A stored row with the same content key that cannot be read fails the duplicate check.
    raw.execute(
        "INSERT INTO notification (customerId, createdDate, version, analyticsTag, isMarketing, "
        "status, "
        "notificationKind) VALUES ('c9', '2024-03-05', 'v9', 't', 0, 3, 1)");
    store->save({note(std::nullopt, NotificationKind::newApp, "c9", "v9")});
    EXPECT_EQ(count("notification"), "2");
    const auto messages = takeMessages();
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_THAT(messages[0], StartsWith("Unable to save wrapped notification: "));
    EXPECT_THAT(messages[0], HasSubstr("\"status\""));
}

// The list is newest first, one entry per joined row, limited to the given ids when a set is
// given; an empty set selects nothing.
TEST_F(StoreOperations, FetchListsNewestFirstAndHonoursTheIdSet) {
    store->save({note(std::nullopt, NotificationKind::default_, "c", "1", std::nullopt, at("2024-03-01")), button()});
    store->save({note(std::nullopt, NotificationKind::default_, "c", "1", std::nullopt, at("2024-03-03"))});
    store->save({note(std::nullopt, NotificationKind::default_, "c", "1", std::nullopt, at("2024-03-02")), button()});
    raw.execute("INSERT INTO notificationButton (id, visible, notificationId) VALUES (9, 0, 1)");

    const auto all = store->fetchNotifications(std::nullopt);
    EXPECT_THAT(idsOf(all), ElementsAre(2, 3, 1, 1));
    EXPECT_EQ(all[0].actionButton, std::nullopt);
    ASSERT_TRUE(all[2].actionButton && all[3].actionButton);
    EXPECT_THAT((std::vector<std::int64_t>{*all[2].actionButton->id(), *all[3].actionButton->id()}),
                UnorderedElementsAre(1, 9));

    EXPECT_THAT(idsOf(store->fetchNotifications(NotificationIDs{1, 3, 999, -1})), ElementsAre(3, 1, 1));
    EXPECT_THAT(idsOf(store->fetchNotifications(NotificationIDs{2})), ElementsAre(2));
    EXPECT_TRUE(store->fetchNotifications(NotificationIDs{}).empty());
    EXPECT_TRUE(store->fetchNotifications(NotificationIDs{42}).empty());
    EXPECT_TRUE(takeMessages().empty());

    // An unreadable row fails the list only when it is selected.
    raw.execute(
        "INSERT INTO notification (id, createdDate, version, analyticsTag, isMarketing, status, "
        "notificationKind) VALUES (4, '2024-03-04', 'v', 't', 0, 3, 0)");
    EXPECT_THAT(idsOf(store->fetchNotifications(NotificationIDs{2, 3})), ElementsAre(2, 3));
    EXPECT_TRUE(store->fetchNotifications(std::nullopt).empty());
    EXPECT_EQ(takeMessages().size(), 1U);
}

// Both existence questions compare the columns exactly; the version question ignores the kind,
// the other question never matches a NULL customer and narrows by app and version only when given.
TEST_F(StoreOperations, ExistenceQuestionsFollowTheirColumns) {
    using K = NotificationKind;
    store->save({note(std::nullopt, K::newApp, "c1", "1.0-Beta", 10)});
    store->save({note(std::nullopt, K::default_, "c1", "2.0", std::nullopt)});
    store->save({note(std::nullopt, K::ai, std::nullopt, "3.0", 20)});
    store->save({note(std::nullopt, K::appUpdate, "c1", "4.0", std::nullopt)});
    raw.execute("UPDATE notification SET status = 2");

    for (const char* version : {"1.0-Beta", "2.0", "3.0", "4.0"})
        EXPECT_TRUE(store->containsVantro(version)) << version;
    EXPECT_FALSE(store->containsVantro("1.0-beta"));
    EXPECT_FALSE(store->containsVantro("4"));
    EXPECT_FALSE(store->containsVantro(""));

    EXPECT_TRUE(store->containsNotification(K::newApp, "c1", std::nullopt, std::nullopt));
    EXPECT_TRUE(store->containsNotification(K::newApp, "c1", 10, "1.0-Beta"));
    EXPECT_FALSE(store->containsNotification(K::newApp, "c1", 10, "1.0-beta"));
    EXPECT_FALSE(store->containsNotification(K::newApp, "c1", 11, std::nullopt));
    EXPECT_FALSE(store->containsNotification(K::newApp, "c1", std::nullopt, "2.0"));
    EXPECT_FALSE(store->containsNotification(K::newApp, "C1", std::nullopt, std::nullopt));
    EXPECT_FALSE(store->containsNotification(K::appUpdate, "c1", 10, std::nullopt));
    EXPECT_TRUE(store->containsNotification(K::appUpdate, "c1", std::nullopt, "4.0"));
    EXPECT_FALSE(store->containsNotification(K::appUpdate, "c1", 0, "4.0")) << "a given app never matches NULL";
    EXPECT_TRUE(store->containsNotification(K::default_, "c1", std::nullopt, "2.0"));
    EXPECT_FALSE(store->containsNotification(K::ai, "", 20, "3.0")) << "a NULL customer never matches";
    EXPECT_FALSE(store->containsNotification(K::ai, "c1", std::nullopt, std::nullopt));
    EXPECT_TRUE(takeMessages().empty());
}

// Once another program has removed the tables, each operation fails the way its contract says:
// the list is empty and logged, the version question answers true and the other false without a
// message, the single-statement deletions and the button change drop their failures silently.
TEST_F(StoreOperations, EachOperationFailsItsOwnWayWhenTheTablesAreGone) {
    store->save({note(std::nullopt), button()});
    store->save({note(std::nullopt, NotificationKind::newApp), button()});
    const auto stored = store->fetchNotifications(std::nullopt);
    ASSERT_EQ(stored.size(), 2U);
    raw.execute("DROP TABLE notificationButton; DROP TABLE notification");

    EXPECT_TRUE(store->fetchNotifications(std::nullopt).empty());
    EXPECT_THAT(takeMessages(), ElementsAre("Unable to read wrapped notifications: " + kNoTable));
    EXPECT_TRUE(store->containsVantro("never stored"));
    EXPECT_FALSE(store->containsNotification(NotificationKind::newApp, "customer", std::nullopt, std::nullopt));
    store->updateButtonVisibility({1, 2}, false);
    store->deleteNotifications(NotificationModelInfoSet(stored.begin(), stored.end()));
    store->deleteAll();
    EXPECT_TRUE(takeMessages().empty());

    store->updateStatus({1, 2}, NotificationStatus::shown);
    EXPECT_THAT(takeMessages(), ElementsAre("Unable to mark as read notification IDs: [1, 2]: " + kNoTable));
    store->deleteAllNotifications(NotificationKind::appUpdate);
    EXPECT_THAT(takeMessages(), ElementsAre("Unable to delete all notification with kind 2: " + kNoTable));
    store->save({note(std::nullopt)});
    EXPECT_THAT(takeMessages(), ElementsAre("Unable to save wrapped notification: " + kNoTable));
}

// While another connection holds the write lock (and the store does not wait), every write
// operation fails to begin, logs its own message and changes nothing; reads go on.
TEST_F(StoreOperations, WritesThatCannotBeginLogTheirOwnMessage) {
    store->save({note(std::nullopt, NotificationKind::newApp), button()});
    store->save({note(std::nullopt), button()});
    const auto stored = store->fetchNotifications(std::nullopt);
    const Rows before = everything();

    raw.execute("BEGIN IMMEDIATE");
    store->save({note(std::nullopt)});
    store->updateStatus({1, 2}, NotificationStatus::read);
    store->updateStatus({}, NotificationStatus::shown);
    store->updateButtonVisibility({1}, false);
    store->deleteNotifications(NotificationModelInfoSet(stored.begin(), stored.end()));
    store->deleteAll();
    store->deleteAllNotifications(NotificationKind::newApp);
    EXPECT_EQ(store->fetchNotifications(std::nullopt).size(), 2U);
    raw.execute("ROLLBACK");

    EXPECT_THAT(takeMessages(), ElementsAre("Unable to save wrapped notification: " + kLocked,
                                            "Unable to mark as read notification IDs: [1, 2]: " + kLocked,
                                            "Unable to mark as read notification IDs: []: " + kLocked,
                                            "Unable to change button visibility for notification IDs: [1]: " + kLocked,
                                            "Unable to reset notifications database: " + kLocked,
                                            "Unable to reset notification database: " + kLocked,
                                            "Unable to delete all notification with kind 1: " + kLocked));
    EXPECT_EQ(everything(), before);
}

// Status changes reach exactly the given rows, in any direction; a failing update changes none.
TEST_F(StoreOperations, UpdateStatusSetsTheGivenRows) {
    for (int i = 0; i < 3; ++i) store->save({note(std::nullopt)});
    store->updateStatus({1, 2}, NotificationStatus::read);
    EXPECT_EQ(column("notification", "status"), (Rows{{"1", "2"}, {"2", "2"}, {"3", "0"}}));
    store->updateStatus({}, NotificationStatus::shown);
    store->updateStatus({999, -1}, NotificationStatus::shown);
    store->updateStatus({1}, NotificationStatus::new_);
    store->updateStatus({3}, NotificationStatus::shown);
    EXPECT_EQ(column("notification", "status"), (Rows{{"1", "0"}, {"2", "2"}, {"3", "1"}}));
    EXPECT_TRUE(takeMessages().empty());

    raw.execute(
        "CREATE TRIGGER refuseTwo BEFORE UPDATE ON notification WHEN NEW.id = 2 BEGIN "
        "SELECT RAISE(ABORT, 'refused'); END");
    store->updateStatus({1, 2}, NotificationStatus::shown);
    EXPECT_EQ(column("notification", "status"), (Rows{{"1", "0"}, {"2", "2"}, {"3", "1"}}));
    EXPECT_THAT(takeMessages(), ElementsAre("Unable to mark as read notification IDs: [1, 2]: " + kRefused));
}

// Visibility is chosen by the owning notification's id, never by a button's own id; a failing
// update keeps the ones before it and skips the rest, silently.
TEST_F(StoreOperations, UpdateButtonVisibilityActsOnTheButtonsOfTheGivenNotifications) {
    store->save({note(10), button(20)});
    raw.execute("INSERT INTO notificationButton (id, visible, notificationId) VALUES (21, 1, 10)");
    store->save({note(20), button(30)});
    store->save({note(30), button(40)});
    store->save({note(5)});
    const auto visibility = [this] { return column("notificationButton", "visible"); };

    store->updateButtonVisibility({20}, false);
    EXPECT_EQ(visibility(), (Rows{{"20", "1"}, {"21", "1"}, {"30", "0"}, {"40", "1"}}));
    store->updateButtonVisibility({10, 30}, false);
    EXPECT_EQ(visibility(), (Rows{{"20", "0"}, {"21", "0"}, {"30", "0"}, {"40", "0"}}));
    store->updateButtonVisibility({5, 40, 999}, true);
    EXPECT_EQ(visibility(), (Rows{{"20", "0"}, {"21", "0"}, {"30", "0"}, {"40", "0"}}));
    EXPECT_TRUE(takeMessages().empty());

    raw.execute(
        "CREATE TRIGGER refuseTwenty BEFORE UPDATE ON notificationButton WHEN NEW.notificationId = "
        "20 BEGIN "
        "SELECT RAISE(ABORT, 'refused'); END");
    store->updateButtonVisibility({10, 20, 30}, true);
    EXPECT_EQ(visibility(), (Rows{{"20", "1"}, {"21", "1"}, {"30", "0"}, {"40", "0"}}));
    EXPECT_TRUE(takeMessages().empty());
}

// Deleting removes the named notifications with every button that points at them, and the named
// buttons even where their notification is not named.
TEST_F(StoreOperations, DeleteRemovesNamedNotificationsAndButtons) {
    store->save({note(1), button(11)});
    raw.execute("INSERT INTO notificationButton (id, visible, notificationId) VALUES (12, 1, 1)");
    store->save({note(2), button(21)});
    store->save({note(3)});
    raw.execute("INSERT INTO notificationButton (id, visible, notificationId) VALUES (31, 1, 3)");
    store->save({note(4), button(41)});
    const auto first = store->fetchNotifications(NotificationIDs{1});

    store->deleteNotifications({});
    EXPECT_EQ(count("notificationButton"), "5");
    store->deleteNotifications({first.front(), NotificationModelInfo(note(std::nullopt), button(21)),
                                NotificationModelInfo(note(3)), NotificationModelInfo(note(99), button(98))});
    EXPECT_EQ(raw.query("SELECT id FROM notification ORDER BY id"), (Rows{{"2"}, {"4"}}));
    EXPECT_EQ(raw.query("SELECT id FROM notificationButton ORDER BY id"), (Rows{{"41"}}));

    raw.execute("INSERT INTO notificationButton (id, visible, notificationId) VALUES (50, 1, NULL)");
    store->deleteAll();
    EXPECT_EQ(count("notification"), "0");
    EXPECT_EQ(count("notificationButton"), "0");
    store->deleteAll();
    EXPECT_TRUE(takeMessages().empty());
}

// Deleting a kind removes exactly that kind's notifications and their buttons; a kind whose rows
// cannot be read is not deleted at all and the failure names the kind's raw value.
TEST_F(StoreOperations, DeleteAllNotificationsOfAKind) {
    using K = NotificationKind;
    const std::vector<K> kinds{K::default_, K::newApp, K::appUpdate, K::vantroUpdate, K::ai, K::newApp};
    for (std::int64_t id = 1; id <= static_cast<std::int64_t>(kinds.size()); ++id) {
        store->save({note(id, kinds[id - 1], "c" + std::to_string(id)), button(10 * id)});
    }
    raw.execute("INSERT INTO notificationButton (id, visible, notificationId) VALUES (7, 1, NULL)");

    store->deleteAllNotifications(K::newApp);
    EXPECT_EQ(raw.query("SELECT id FROM notification ORDER BY id"), (Rows{{"1"}, {"3"}, {"4"}, {"5"}}));
    EXPECT_EQ(raw.query("SELECT id FROM notificationButton ORDER BY id"),
              (Rows{{"7"}, {"10"}, {"30"}, {"40"}, {"50"}}));
    store->deleteAllNotifications(K::newApp);
    EXPECT_EQ(count("notification"), "4");
    EXPECT_TRUE(takeMessages().empty());

    raw.execute(
        "INSERT INTO notification (id, createdDate, version, analyticsTag, isMarketing, status, "
        "notificationKind) VALUES (8, '2024-03-05', 'v', 't', 0, 3, 2)");
    store->deleteAllNotifications(K::appUpdate);
    EXPECT_EQ(count("notification", "notificationKind = 2"), "2");
    EXPECT_EQ(count("notificationButton", "id = 30"), "1");
    const auto messages = takeMessages();
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_THAT(messages[0], StartsWith("Unable to delete all notification with kind 2: "));
    EXPECT_THAT(messages[0], HasSubstr("\"status\""));

    store->deleteAllNotifications(K::ai);
    EXPECT_EQ(raw.query("SELECT id FROM notification ORDER BY id"), (Rows{{"1"}, {"3"}, {"4"}, {"8"}}));
    EXPECT_TRUE(takeMessages().empty());
}

// Sets of ids far beyond SQLite's limit on bound parameters work in every operation that takes one.
TEST_F(StoreOperations, LargeIdSetsWork) {
    constexpr int kCount = 40000;
    raw.execute("BEGIN; WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
                std::to_string(kCount) +
                ") INSERT INTO notification (id, customerId, createdDate, version, analyticsTag, "
                "isMarketing, "
                "status, notificationKind) SELECT i, 'c', strftime('%Y-%m-%d %H:%M:%S', 1700000000 "
                "+ i, 'unixepoch') "
                "|| '.000', 'v', 't', 0, 0, 0 FROM n; "
                "INSERT INTO notificationButton (visible, notificationId) SELECT 1, id FROM "
                "notification; COMMIT");
    NotificationIDs ids;
    for (std::int64_t id = 1; id <= kCount; ++id) ids.insert(id);
    ids.insert(kCount + 1);

    store->updateStatus(ids, NotificationStatus::read);
    EXPECT_EQ(count("notification", "status = 2"), std::to_string(kCount));
    store->updateButtonVisibility(ids, false);
    EXPECT_EQ(count("notificationButton", "visible = 0"), std::to_string(kCount));
    const auto fetched = store->fetchNotifications(ids);
    ASSERT_EQ(fetched.size(), static_cast<std::size_t>(kCount));
    EXPECT_EQ(fetched.front().notification.id(), kCount);
    EXPECT_EQ(fetched.back().notification.id(), 1);
    store->deleteNotifications(NotificationModelInfoSet(fetched.begin(), fetched.end()));
    EXPECT_EQ(count("notification"), "0");
    EXPECT_EQ(count("notificationButton"), "0");
    EXPECT_TRUE(takeMessages().empty());
}

}  // namespace
}  // namespace notificationdb
