// The store's operations on a file on disk, each checked in the tables as another SQLite client
// sees them: what a save stores or skips, what the list and the questions find, what the
// updates and deletions change, and the message each failure logs.

#include "TestSupport.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

namespace notificationdb {
namespace {

using namespace testing;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;
using K = NotificationKind;

constexpr std::int64_t kMaxID = std::numeric_limits<std::int64_t>::max();
const std::string kNoTable = "SQLite error 1 (SQLITE_ERROR): no such table: notification";
const std::string kRefused = "SQLite error 19 (SQLITE_CONSTRAINT_TRIGGER): refused";
const std::string kLocked = "SQLite error 5 (SQLITE_BUSY): database is locked";

class StoreOperations : public ::testing::Test, protected StoreOnDisk {
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
};

std::vector<std::int64_t> idsOf(const std::vector<NotificationModelInfo>& infos) {
    std::vector<std::int64_t> ids;
    for (const auto& info : infos) ids.push_back(info.notification.id().value_or(-1));
    return ids;
}

// A notification is stored under the id it brings, or a new one; its button points at that id.
// One whose id is stored already changes nothing at all, its button included.
TEST_F(StoreOperations, SaveKeepsGivenIdsAndSkipsStoredOnes) {
    store->save({note({.id = 5, .kind = K::appUpdate}), button(std::nullopt, "first")});
    const Rows before = everything();
    store->save({note({.id = 5, .customer = "someone else", .version = "2.0", .appId = 3, .title = "changed"}),
                 button(1, "replaced")});
    store->save({note({.id = 5})});
    EXPECT_EQ(everything(), before);

    store->save({note({.id = 9}), button()});
    store->save({note({.id = -3}), button()});
    NotificationModelInfo idLess(note(), button());
    idLess.actionButton->notificationId = 12345;
    store->save(idLess);
    EXPECT_EQ(idLess.notification.id(), std::nullopt) << "the caller's pair was changed";
    EXPECT_EQ(idLess.actionButton->notificationId, 12345);
    store->save({note({.id = kMaxID}), button()});

    EXPECT_EQ(raw.query("SELECT notificationId, id FROM notificationButton ORDER BY id"),
              (Rows{{"5", "1"}, {"9", "2"}, {"-3", "3"}, {"10", "4"}, {std::to_string(kMaxID), "5"}}));
    EXPECT_THAT(idsOf(store->fetchNotifications(NotificationIDs{-3, kMaxID, 10, 4})),
                UnorderedElementsAre(-3, kMaxID, 10));
    EXPECT_TRUE(takeMessages().empty());
}

// The content key (customer, kind, version, app) finds a stored notification whatever its status,
// texts or date; NULL customers match only NULL; an absent app matches any app.
TEST_F(StoreOperations, SaveSkipsContentDuplicatesOfStoredNotifications) {
    const auto stores = [this](Note fields) {
        const std::string before = count("notification");
        store->save({note(std::move(fields)), button()});
        return count("notification") != before;
    };
    const auto key = [](std::optional<std::string> customer, K kind, std::string version,
                        std::optional<std::int64_t> app) {
        return Note{.customer = std::move(customer), .version = std::move(version), .kind = kind, .appId = app};
    };
    const std::nullopt_t none = std::nullopt;

    EXPECT_TRUE(stores(key("c1", K::default_, "v1", 1)));
    EXPECT_TRUE(stores(key("c1", K::default_, "v1", 1))) << "default notifications are never duplicates";
    EXPECT_TRUE(stores(key("c1", K::newApp, "v1", 10)));
    Note other = key("c1", K::newApp, "v1", 10);
    other.created = at("2025-01-01");
    other.title = "another title";
    other.status = NotificationStatus::read;
    EXPECT_FALSE(stores(other)) << "dates, texts and status do not count";
    other.id = 77;
    EXPECT_FALSE(stores(other)) << "a new id does not make it new";
    EXPECT_TRUE(stores(key("c1", K::appUpdate, "v1", 10)));
    EXPECT_FALSE(stores(key("c1", K::newApp, "v1", none))) << "no app matches any app";
    EXPECT_TRUE(stores(key("c1", K::newApp, "v1", 11)));
    EXPECT_TRUE(stores(key("c1", K::newApp, "V1", 10))) << "versions compare case-sensitively";
    EXPECT_TRUE(stores(key("C1", K::newApp, "v1", 10))) << "customers compare case-sensitively";

    EXPECT_TRUE(stores(key("c2", K::ai, "v1", none)));
    EXPECT_FALSE(stores(key("c2", K::ai, "v1", none))) << "no app matches a NULL app";
    EXPECT_TRUE(stores(key("c2", K::ai, "v1", 5))) << "a given app never matches NULL";
    EXPECT_FALSE(stores(key("c2", K::ai, "v1", 5)));

    EXPECT_TRUE(stores(key(none, K::vantroUpdate, "v2", none)));
    EXPECT_FALSE(stores(key(none, K::vantroUpdate, "v2", none))) << "no customer matches a NULL customer";
    EXPECT_TRUE(stores(key("c1", K::vantroUpdate, "v2", none))) << "a customer never matches NULL";
    EXPECT_TRUE(stores(key("c3", K::appUpdate, "v3", none)));
    EXPECT_TRUE(stores(key(none, K::appUpdate, "v3", none))) << "no customer matches only NULL";
    EXPECT_TRUE(stores(key("", K::appUpdate, "v3", none))) << "an empty customer is not NULL";
    EXPECT_FALSE(stores(key("", K::appUpdate, "v3", none)));

    // The first of two equivalent notifications stays, whether it is the older or the newer one.
    for (const auto& [customer, first, second] :
         {std::tuple{"a", "2024-01-01", "2024-02-01"}, std::tuple{"b", "2024-02-01", "2024-01-01"}}) {
        Note fields = key(customer, K::newApp, "1", 1);
        fields.created = at(first);
        fields.title = "first";
        EXPECT_TRUE(stores(fields));
        fields.created = at(second);
        fields.title = "second";
        EXPECT_FALSE(stores(fields));
    }
    EXPECT_EQ(raw.query("SELECT customerId, title FROM notification WHERE version = '1' ORDER BY customerId"),
              (Rows{{"a", "first"}, {"b", "first"}}));

    EXPECT_EQ(count("notificationButton"), count("notification")) << "a skipped notification's button was written";
    EXPECT_TRUE(takeMessages().empty());
}

// A button that names an existing button row takes that row over for its new notification;
// one that names no row is inserted under its id.
TEST_F(StoreOperations, SaveWritesTheButtonByItsId) {
    store->save({note(), NotificationButton(std::nullopt, "a", "A's", true, std::nullopt,
                                            UserActionKind::openBlogArticle, Bytes{7})});
    store->save({note(), NotificationButton(1, "b", "B's", false, 1, std::nullopt, std::nullopt)});
    store->save({note(), button(77)});
    store->save({note()});

    EXPECT_EQ(raw.query("SELECT * FROM notificationButton ORDER BY id"),
              (Rows{{"1", "b", "B's", "0", "2", "NULL", "NULL"}, {"77", "button", "Open", "1", "3", "1", "x'0102'"}}));
    const auto fetched = store->fetchNotifications(NotificationIDs{1, 4});
    ASSERT_EQ(fetched.size(), 2U);
    for (const auto& info : fetched) EXPECT_EQ(info.actionButton, std::nullopt);
    EXPECT_TRUE(takeMessages().empty());
}

// Whatever fails inside a save takes the whole save back and is logged once; the store stays
// usable.
TEST_F(StoreOperations, AFailingSaveLeavesNothingBehind) {
    raw.execute(
        "CREATE TRIGGER refuseButtons BEFORE INSERT ON notificationButton BEGIN "
        "SELECT RAISE(ABORT, 'refused'); END");
    store->save({note(), button()});
    EXPECT_EQ(count("notification"), "0");
    EXPECT_EQ(count("notificationButton"), "0");
    EXPECT_THAT(takeMessages(), ElementsAre("Unable to save wrapped notification: " + kRefused));

    store->save({note()});
    EXPECT_EQ(count("notification"), "1");
    EXPECT_TRUE(takeMessages().empty());
}

// The list is newest first, one entry per joined row, limited to the given ids when a set is
// given; an empty set selects nothing.
TEST_F(StoreOperations, FetchListsNewestFirstAndHonoursTheIdSet) {
    store->save({note({.created = at("2024-03-01")}), button()});
    store->save({note({.created = at("2024-03-03")})});
    store->save({note({.created = at("2024-03-02")}), button()});
    raw.execute("INSERT INTO notificationButton (id, visible, notificationId) VALUES (9, 0, 1)");

    const auto all = store->fetchNotifications(std::nullopt);
    EXPECT_THAT(idsOf(all), ElementsAre(2, 3, 1, 1));
    EXPECT_EQ(all[0].actionButton, std::nullopt);
    ASSERT_TRUE(all[2].actionButton && all[3].actionButton);
    EXPECT_THAT((std::vector{*all[2].actionButton->id(), *all[3].actionButton->id()}), UnorderedElementsAre(1, 9));

    EXPECT_THAT(idsOf(store->fetchNotifications(NotificationIDs{1, 3, 999, -1})), ElementsAre(3, 1, 1));
    EXPECT_THAT(idsOf(store->fetchNotifications(NotificationIDs{2})), ElementsAre(2));
    EXPECT_TRUE(store->fetchNotifications(NotificationIDs{}).empty());
    EXPECT_TRUE(takeMessages().empty());
}

// Both existence questions compare the columns exactly; the version question ignores the kind,
// the other question never matches a NULL customer and narrows by app and version only when given.
TEST_F(StoreOperations, ExistenceQuestionsFollowTheirColumns) {
    store->save({note({.customer = "c1", .version = "1.0-Beta", .kind = K::newApp, .appId = 10})});
    store->save({note({.customer = "c1", .version = "2.0"})});
    store->save({note({.customer = std::nullopt, .version = "3.0", .kind = K::ai, .appId = 20})});
    store->save({note({.customer = "c1", .version = "4.0", .kind = K::appUpdate})});
    raw.execute("UPDATE notification SET status = 2");

    for (const char* version : {"1.0-Beta", "2.0", "3.0", "4.0"})
        EXPECT_TRUE(store->containsVantro(version)) << version;
    for (const char* version : {"1.0-beta", "4", ""}) EXPECT_FALSE(store->containsVantro(version)) << version;

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

// Once another program has dropped the table "notification", each operation gives its neutral
// result: the count and the list are empty and logged, the version question answers true and
// the other false without a message; the status update, the deletion by kind and the save log
// their failure; the single-statement deletions and the button change drop theirs silently.
// Nothing is announced. A new store on the file creates the table again, and the first store
// works on it.
TEST_F(StoreOperations, EachOperationFailsItsOwnWayWhenTheTableIsGone) {
    store->save({note({.id = 1}), button()});
    const auto stored = store->fetchNotifications(std::nullopt);
    raw.execute("DROP TABLE notification");
    notices.reset();

    EXPECT_EQ(store->notificationsCount(), 0);
    EXPECT_TRUE(store->fetchNotifications(std::nullopt).empty());
    EXPECT_TRUE(store->containsVantro("never stored"));
    EXPECT_FALSE(store->containsNotification(K::default_, "customer", std::nullopt, std::nullopt));
    store->updateButtonVisibility({1}, false);
    store->deleteNotifications(NotificationModelInfoSet(stored.begin(), stored.end()));
    store->deleteAll();
    store->updateStatus({1, 2}, NotificationStatus::shown);
    store->deleteAllNotifications(K::appUpdate);
    store->save({note()});
    EXPECT_THAT(takeMessages(), ElementsAre("Unable to fetch notifications count: " + kNoTable,
                                            "Unable to read wrapped notifications: " + kNoTable,
                                            "Unable to mark as read notification IDs: [1, 2]: " + kNoTable,
                                            "Unable to delete all notification with kind 2: " + kNoTable,
                                            "Unable to save wrapped notification: " + kNoTable));
    // The visibility change needs only "notificationButton" and went through; with foreign keys
    // enforced SQLite refuses to delete from it while the table it refers to is missing.
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) || ' ' || visible FROM notificationButton"), "1 0");
    EXPECT_EQ(notices.count(), 0);

    (void)NotificationDatabaseImpl::create(NotificationDatabaseConfig(file, Configuration{}));
    store->save({note({.version = "3.0"})});
    EXPECT_THAT(store->fetchNotifications(std::nullopt),
                ElementsAre(::testing::Field(&NotificationModelInfo::notification,
                                             ::testing::Field(&NotificationModel::version, "3.0"))));
    EXPECT_EQ(notices.count(), 1);
    EXPECT_TRUE(takeMessages().empty());
}

// While another connection holds the write lock (and the store does not wait), every write
// operation fails to begin, logs its own message and changes nothing; reads go on.
TEST_F(StoreOperations, WritesThatCannotBeginLogTheirOwnMessage) {
    store->save({note({.kind = K::newApp}), button()});
    store->save({note(), button()});
    const auto stored = store->fetchNotifications(std::nullopt);
    const Rows before = everything();

    raw.execute("BEGIN IMMEDIATE");
    store->save({note()});
    store->updateStatus({1, 2}, NotificationStatus::read);
    store->updateStatus({}, NotificationStatus::shown);
    store->updateButtonVisibility({1}, false);
    store->deleteNotifications(NotificationModelInfoSet(stored.begin(), stored.end()));
    store->deleteAll();
    store->deleteAllNotifications(K::newApp);
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
    for (int i = 0; i < 3; ++i) store->save({note()});
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
    store->save({note({.id = 10}), button(20)});
    raw.execute("INSERT INTO notificationButton (id, visible, notificationId) VALUES (21, 1, 10)");
    store->save({note({.id = 20}), button(30)});
    store->save({note({.id = 30}), button(40)});
    store->save({note({.id = 5})});
    const auto visibility = [this] { return column("notificationButton", "visible"); };

    store->updateButtonVisibility({20}, false);
    EXPECT_EQ(visibility(), (Rows{{"20", "1"}, {"21", "1"}, {"30", "0"}, {"40", "1"}}));
    store->updateButtonVisibility({10, 30}, false);
    store->updateButtonVisibility({5, 40, 999}, true);
    EXPECT_EQ(visibility(), (Rows{{"20", "0"}, {"21", "0"}, {"30", "0"}, {"40", "0"}}));
    EXPECT_TRUE(takeMessages().empty());

    raw.execute(
        "CREATE TRIGGER refuseTwenty BEFORE UPDATE ON notificationButton WHEN NEW.notificationId = 20 "
        "BEGIN SELECT RAISE(ABORT, 'refused'); END");
    store->updateButtonVisibility({10, 20, 30}, true);
    EXPECT_EQ(visibility(), (Rows{{"20", "1"}, {"21", "1"}, {"30", "0"}, {"40", "0"}}));
    EXPECT_TRUE(takeMessages().empty());
}

// Deleting removes the named notifications with every button that points at them, and the named
// buttons even where their notification is not named.
TEST_F(StoreOperations, DeleteRemovesNamedNotificationsAndButtons) {
    store->save({note({.id = 1}), button(11)});
    raw.execute("INSERT INTO notificationButton (id, visible, notificationId) VALUES (12, 1, 1)");
    store->save({note({.id = 2}), button(21)});
    store->save({note({.id = 3})});
    raw.execute("INSERT INTO notificationButton (id, visible, notificationId) VALUES (31, 1, 3)");
    store->save({note({.id = 4}), button(41)});
    const auto first = store->fetchNotifications(NotificationIDs{1});

    store->deleteNotifications({});
    EXPECT_EQ(count("notificationButton"), "5");
    store->deleteNotifications({first.front(), NotificationModelInfo(note(), button(21)),
                                NotificationModelInfo(note({.id = 3})),
                                NotificationModelInfo(note({.id = 99}), button(98))});
    EXPECT_EQ(raw.query("SELECT id FROM notification ORDER BY id"), (Rows{{"2"}, {"4"}}));
    EXPECT_EQ(raw.query("SELECT id FROM notificationButton ORDER BY id"), (Rows{{"41"}}));

    raw.execute("INSERT INTO notificationButton (id, visible, notificationId) VALUES (50, 1, NULL)");
    store->deleteAll();
    EXPECT_EQ(count("notification"), "0");
    EXPECT_EQ(count("notificationButton"), "0");
    store->deleteAll();
    EXPECT_TRUE(takeMessages().empty());
}

// Deleting a kind removes exactly that kind's notifications and their buttons. (A kind whose
// rows cannot be read is not deleted at all: see HostileInput.RowsWithValuesOutOfRange.)
TEST_F(StoreOperations, DeleteAllNotificationsOfAKind) {
    const std::vector<K> kinds{K::default_, K::newApp, K::appUpdate, K::vantroUpdate, K::ai, K::newApp};
    for (std::int64_t id = 1; id <= static_cast<std::int64_t>(kinds.size()); ++id) {
        store->save({note({.id = id, .customer = "c" + std::to_string(id), .kind = kinds[id - 1]}), button(10 * id)});
    }
    raw.execute("INSERT INTO notificationButton (id, visible, notificationId) VALUES (7, 1, NULL)");

    store->deleteAllNotifications(K::newApp);
    EXPECT_EQ(raw.query("SELECT id FROM notification ORDER BY id"), (Rows{{"1"}, {"3"}, {"4"}, {"5"}}));
    EXPECT_EQ(raw.query("SELECT id FROM notificationButton ORDER BY id"),
              (Rows{{"7"}, {"10"}, {"30"}, {"40"}, {"50"}}));
    store->deleteAllNotifications(K::newApp);
    EXPECT_EQ(count("notification"), "4");
    store->deleteAllNotifications(K::ai);
    EXPECT_EQ(raw.query("SELECT id FROM notification ORDER BY id"), (Rows{{"1"}, {"3"}, {"4"}}));
    EXPECT_TRUE(takeMessages().empty());
}

// Sets of ids far beyond SQLite's limit on bound parameters work in every operation that takes one.
TEST_F(StoreOperations, LargeIdSetsWork) {
    constexpr int kCount = 40000;
    raw.execute("BEGIN; WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
                std::to_string(kCount) +
                ") INSERT INTO notification (id, customerId, createdDate, version, analyticsTag, isMarketing, status, "
                "notificationKind) SELECT i, 'c', strftime('%Y-%m-%d %H:%M:%S', 1700000000 + i, 'unixepoch') || "
                "'.000', 'v', 't', 0, 0, 0 FROM n; INSERT INTO notificationButton (visible, notificationId) SELECT 1, "
                "id FROM notification; COMMIT");
    NotificationIDs ids;
    for (std::int64_t id = 1; id <= kCount + 1; ++id) ids.insert(id);

    store->updateStatus(ids, NotificationStatus::read);
    EXPECT_EQ(count("notification", "status = 2"), std::to_string(kCount));
    store->updateButtonVisibility(ids, false);
    EXPECT_EQ(count("notificationButton", "visible = 0"), std::to_string(kCount));
    const auto fetched = store->fetchNotifications(ids);
    ASSERT_EQ(fetched.size(), static_cast<std::size_t>(kCount));
    EXPECT_EQ(fetched.front().notification.id(), kCount);
    store->deleteNotifications(NotificationModelInfoSet(fetched.begin(), fetched.end()));
    EXPECT_EQ(count("notification"), "0");
    EXPECT_EQ(count("notificationButton"), "0");
    EXPECT_TRUE(takeMessages().empty());
}

}  // namespace
}  // namespace notificationdb
