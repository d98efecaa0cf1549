#include <NotificationDatabase/Database/DatabasePool.hpp>
#include <NotificationDatabase/Database/RecordPersistence.hpp>
#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/NotificationDatabaseConfig.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include "TestSupport.hpp"

#include <sqlite3.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace notificationdb {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Rows = std::vector<std::vector<std::string>>;

Timestamp at(std::string_view text) {
    return parseDateText(text).value();
}

// Keeps the store's change notices off the process's main queue while a test runs.
struct SwallowedNotices {
    SwallowedNotices() {
        MainQueue::main().setScheduler([](MainQueue::Clock::time_point, MainQueue::Job) {});
    }
    ~SwallowedNotices() { MainQueue::main().setScheduler({}); }
};

class RecordStore : public ::testing::Test {
protected:
    SwallowedNotices notices;
    testing::TemporaryDirectory directory;
    testing::LogCapture log;
    std::filesystem::path file = directory / "db.sqlite";
    std::shared_ptr<NotificationDatabaseImpl> store =
        NotificationDatabaseImpl::create(NotificationDatabaseConfig(file, Configuration{}));
    testing::RawDatabase raw{file};
};

void expectSameFields(const NotificationModel& actual, const NotificationModel& expected) {
    EXPECT_EQ(actual.customerId(), expected.customerId());
    EXPECT_EQ(actual.createdDate, std::chrono::floor<std::chrono::milliseconds>(expected.createdDate));
    EXPECT_EQ(actual.version, expected.version);
    EXPECT_EQ(actual.analyticsTag, expected.analyticsTag);
    EXPECT_EQ(actual.title, expected.title);
    EXPECT_EQ(actual.body, expected.body);
    EXPECT_EQ(actual.bannerUrl, expected.bannerUrl);
    EXPECT_EQ(actual.isMarketing, expected.isMarketing);
    EXPECT_EQ(actual.appId, expected.appId);
    EXPECT_EQ(actual.status, expected.status);
    EXPECT_EQ(actual.notificationKind, expected.notificationKind);
}

void expectSameFields(const NotificationButton& actual, const NotificationButton& expected) {
    EXPECT_EQ(actual.buttonId, expected.buttonId);
    EXPECT_EQ(actual.title, expected.title);
    EXPECT_EQ(actual.visible, expected.visible);
    EXPECT_EQ(actual.actionKind, expected.actionKind);
    EXPECT_EQ(actual.userAction, expected.userAction);
}

const std::string kInsertNotification =
    "INSERT INTO notification (id, customerId, createdDate, version, analyticsTag, isMarketing, "
    "appId, status, "
    "notificationKind) VALUES ";

// Every field lands in its column in the agreed storage form (another SQLite client reads it
// back), and reads back through the store unchanged.
TEST_F(RecordStore, EveryFieldIsStoredInItsStorageFormAndReadsBack) {
    const Bytes payload{0x00, 0x41, 0x00, 0xFF, 0x80, 0x7F, 0x00};
    const NotificationModel full(std::nullopt, "customer-1", at("2024-03-05 17:04:09.250") + 400us, "1.2.3",
                                 std::string(NotificationModel::unusedAppsAnalyticsTag), "", "Body",
                                 "https://example.com/banner.png?a=1&b=é", true, 42, NotificationStatus::read,
                                 NotificationKind::vantroUpdate);
    const NotificationButton fullButton(std::nullopt, "button-1", "Open", true, std::nullopt,
                                        UserActionKind::openVantro, payload);
    const NotificationModel bare(std::nullopt, std::nullopt, at("2024-03-05"), "", "", std::nullopt, std::nullopt,
                                 std::nullopt, false, std::nullopt, NotificationStatus::new_,
                                 NotificationKind::default_);
    const NotificationButton bareButton(std::nullopt, std::nullopt, std::nullopt, false, std::nullopt, std::nullopt,
                                        std::nullopt);
    const NotificationModel third(std::nullopt, "", at("1969-07-20 20:17:40.000"), "2.0", "tag", "Title", "", "", false,
                                  -7, NotificationStatus::shown, NotificationKind::ai);
    const NotificationButton thirdButton(std::nullopt, "", "", true, std::nullopt, UserActionKind::refreshInstalledApps,
                                         Bytes{});
    store->save({full, fullButton});
    store->save({bare, bareButton});
    store->save({third, thirdButton});
    EXPECT_TRUE(log.messages().empty());

    EXPECT_EQ(raw.query("SELECT id, customerId, typeof(customerId), createdDate, typeof(createdDate), version, "
                        "analyticsTag, title, typeof(title), body, bannerUrl, isMarketing, "
                        "typeof(isMarketing), appId, "
                        "status, notificationKind FROM notification ORDER BY id"),
              (Rows{{"1", "customer-1", "text", "2024-03-05 17:04:09.250", "text", "1.2.3", "unusedApps", "", "text",
                     "Body", "https://example.com/banner.png?a=1&b=é", "1", "integer", "42", "2", "3"},
                    {"2", "NULL", "null", "2024-03-05 00:00:00.000", "text", "", "", "NULL", "null", "NULL", "NULL",
                     "0", "integer", "NULL", "0", "0"},
                    {"3", "", "text", "1969-07-20 20:17:40.000", "text", "2.0", "tag", "Title", "text", "", "", "0",
                     "integer", "-7", "1", "4"}}));
    EXPECT_EQ(raw.query("SELECT id, buttonId, title, typeof(title), visible, notificationId, "
                        "actionKind, userAction, "
                        "typeof(userAction) FROM notificationButton ORDER BY id"),
              (Rows{{"1", "button-1", "Open", "text", "1", "1", "5", "x'004100FF807F00'", "blob"},
                    {"2", "NULL", "NULL", "null", "0", "2", "NULL", "NULL", "null"},
                    {"3", "", "", "text", "1", "3", "6", "x''", "blob"}}));

    const auto fetched = store->fetchNotifications(std::nullopt);
    ASSERT_EQ(fetched.size(), 3U);
    const std::vector<std::pair<NotificationModel, NotificationButton>> expected{
        {full, fullButton}, {bare, bareButton}, {third, thirdButton}};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(fetched[i].notification.id(), static_cast<std::int64_t>(i + 1));
        expectSameFields(fetched[i].notification, expected[i].first);
        ASSERT_TRUE(fetched[i].actionButton.has_value());
        EXPECT_EQ(fetched[i].actionButton->id(), static_cast<std::int64_t>(i + 1));
        EXPECT_EQ(fetched[i].actionButton->notificationId, static_cast<std::int64_t>(i + 1));
        expectSameFields(*fetched[i].actionButton, expected[i].second);
    }
}

// Values that other writers of the shared file may leave behind, and the shortened and numeric
// date forms, read as the record's field.
TEST_F(RecordStore, ReadsEveryAcceptedFormOfAColumn) {
    raw.execute(kInsertNotification +
                "(1, 'c', '2024-03-05T17:04:09.250', 'v', 't', 7, NULL, 2, 4),"
                "(2, 'c', '2024-03-04 17:04', 'v', 't', 0, NULL, 0, 0),"
                "(3, 'c', 1709485200, 'v', 't', 0, NULL, 0, 0),"
                "(4, 'c', 1709398800.25, 'v', 't', 0, NULL, 0, 0),"
                "(5, 'c', '2024-03-01', 'v', 't', 0, NULL, 0, 0)");
    raw.execute(
        "INSERT INTO notificationButton (id, visible, notificationId, actionKind) VALUES (1, 2, 1, "
        "NULL)");

    const auto fetched = store->fetchNotifications(std::nullopt);
    ASSERT_EQ(fetched.size(), 5U);
    EXPECT_TRUE(log.messages().empty());
    std::map<std::int64_t, NotificationModelInfo> byID;
    for (const auto& info : fetched) byID.emplace(info.notification.id().value(), info);
    ASSERT_EQ(byID.size(), 5U);
    const NotificationModelInfo& first = byID.at(1);
    EXPECT_EQ(first.notification.createdDate, at("2024-03-05 17:04:09.250"));
    EXPECT_TRUE(first.notification.isMarketing);
    EXPECT_EQ(first.notification.status, NotificationStatus::read);
    EXPECT_EQ(first.notification.notificationKind, NotificationKind::ai);
    ASSERT_TRUE(first.actionButton.has_value());
    EXPECT_TRUE(first.actionButton->visible);
    EXPECT_EQ(first.actionButton->actionKind, std::nullopt);
    EXPECT_EQ(byID.at(2).notification.createdDate, at("2024-03-04 17:04:00.000"));
    EXPECT_EQ(byID.at(3).notification.createdDate, at("2024-03-03 17:00:00.000"));
    EXPECT_EQ(byID.at(4).notification.createdDate, at("2024-03-02 17:00:00.250"));
    EXPECT_EQ(byID.at(5).notification.createdDate, at("2024-03-01 00:00:00.000"));
}

// A row that does not make a record fails the whole read; the store's list reports it once and
// hands back nothing rather than the readable rows.
TEST_F(RecordStore, ARowThatCannotBeReadFailsTheWholeRead) {
    struct BadRow {
        std::string sql;
        std::string column;
    };
    const std::vector<BadRow> badRows{
        {kInsertNotification + "(2, 'c', '2024-03-05', 'v', 't', 0, NULL, 3, 0)", "status"},
        {kInsertNotification + "(2, 'c', '2024-03-05', 'v', 't', 0, NULL, -1, 0)", "status"},
        {kInsertNotification + "(2, 'c', '2024-03-05', 'v', 't', 0, NULL, 0, 7)", "notificationKind"},
        {kInsertNotification + "(2, 'c', '2024-03-05', 'v', 't', 0, NULL, 0, -1)", "notificationKind"},
        {kInsertNotification + "(2, 'c', 'yesterday', 'v', 't', 0, NULL, 0, 0)", "createdDate"},
        {kInsertNotification + "(2, 'c', '2024-02-30 10:00:00.000', 'v', 't', 0, NULL, 0, 0)", "createdDate"},
        {kInsertNotification + "(2, 'c', '2024-03-05 10:00:00.000Z', 'v', 't', 0, NULL, 0, 0)", "createdDate"},
        {kInsertNotification + "(2, 'c', x'00', 'v', 't', 0, NULL, 0, 0)", "createdDate"},
        {"INSERT INTO notificationButton (visible, notificationId, actionKind) VALUES (1, 1, 9)", "actionKind"},
        {"INSERT INTO notificationButton (visible, notificationId, actionKind) VALUES (1, 1, -1)", "actionKind"},
        {"INSERT INTO notificationButton (visible, notificationId, actionKind) VALUES (1, 1, 7)", "actionKind"},
    };
    for (const auto& bad : badRows) {
        SCOPED_TRACE(bad.sql);
        raw.execute("DELETE FROM notificationButton; DELETE FROM notification");
        raw.execute(kInsertNotification + "(1, 'c', '2024-03-06', 'v', 't', 0, NULL, 0, 0)");
        raw.execute(bad.sql);
        log.clear();

        EXPECT_TRUE(store->fetchNotifications(std::nullopt).empty());
        const auto messages = log.messages();
        ASSERT_EQ(messages.size(), 1U);
        EXPECT_THAT(messages[0], StartsWith("Unable to read wrapped notifications: "));
        EXPECT_THAT(messages[0], HasSubstr("\"" + bad.column + "\""));
        EXPECT_EQ(log.entries()[0].level, LogLevel::error);
    }
}

// Reads a `Record` from the one row of `sql`; a failure leaves the column it names in `failed`.
template <class Record>
std::optional<Record> readOneRow(DatabasePool& pool, const std::string& sql, std::string* failed = nullptr) {
    try {
        return pool.read([&](Connection& connection) {
            auto statement = connection.makeStatement(sql);
            EXPECT_TRUE(statement->step());
            return readRecord<Record>(statement->row());
        });
    } catch (const RecordDecodingError& error) {
        if (failed) *failed = error.column();
        return std::nullopt;
    }
}

// Rows are read by column name: any order, extra columns ignored, missing optional columns
// absent; a required column that is missing or NULL fails the read and names itself.
TEST_F(RecordStore, RowsAreReadByNameAndRequiredColumnsMustHoldAValue) {
    DatabasePool pool(file, Configuration{});
    const std::vector<std::pair<std::string, std::string>> required{{"createdDate", "'2024-03-05'"},
                                                                    {"version", "'1.0'"},
                                                                    {"analyticsTag", "'tag'"},
                                                                    {"isMarketing", "0"},
                                                                    {"status", "2"},
                                                                    {"notificationKind", "1"}};
    std::string reversed = "SELECT 'x' AS extra";
    for (auto column = required.rbegin(); column != required.rend(); ++column) {
        reversed += ", " + column->second + " AS " + column->first;
    }
    const auto minimal = readOneRow<NotificationModel>(pool, reversed);
    ASSERT_TRUE(minimal.has_value());
    EXPECT_EQ(minimal->id(), std::nullopt);
    EXPECT_EQ(minimal->customerId(), std::nullopt);
    EXPECT_EQ(minimal->title, std::nullopt);
    EXPECT_EQ(minimal->appId, std::nullopt);
    EXPECT_EQ(minimal->createdDate, at("2024-03-05"));
    EXPECT_EQ(minimal->version, "1.0");
    EXPECT_EQ(minimal->status, NotificationStatus::read);
    EXPECT_EQ(minimal->notificationKind, NotificationKind::newApp);

    for (const auto& [name, value] : required) {
        for (const bool missing : {false, true}) {
            std::string sql = "SELECT 1 AS id";
            for (const auto& [other, otherValue] : required) {
                if (other != name) {
                    sql += ", " + otherValue + " AS " + other;
                } else if (!missing) {
                    sql += ", NULL AS " + other;
                }
            }
            std::string failed;
            EXPECT_FALSE(readOneRow<NotificationModel>(pool, sql, &failed)) << sql;
            EXPECT_EQ(failed, name) << sql;
        }
    }

    const auto button = readOneRow<NotificationButton>(pool, "SELECT 0 AS visible, 'x' AS label");
    ASSERT_TRUE(button.has_value());
    EXPECT_FALSE(button->visible);
    EXPECT_EQ(button->id(), std::nullopt);
    EXPECT_EQ(button->actionKind, std::nullopt);
    EXPECT_EQ(button->userAction, std::nullopt);
    for (const std::string sql : {"SELECT 1 AS id, NULL AS visible", "SELECT 1 AS id, 5 AS actionKind"}) {
        std::string failed;
        EXPECT_FALSE(readOneRow<NotificationButton>(pool, sql, &failed)) << sql;
        EXPECT_EQ(failed, "visible") << sql;
    }
}

// Strict construction knows only the cases; the lenient one always yields a case.
TEST(RecordEnumerations, StrictAndLenientConstruction) {
    for (std::int64_t raw : {0, 1, 2}) EXPECT_EQ(rawValue(*fromRawValue<NotificationStatus>(raw)), raw);
    for (std::int64_t raw : {3, -1, -5}) EXPECT_EQ(fromRawValue<NotificationStatus>(raw), std::nullopt);
    for (std::int64_t raw : {0, 1, 2, 3, 4}) EXPECT_EQ(rawValue(*fromRawValue<NotificationKind>(raw)), raw);
    for (std::int64_t raw : {5, -1, 7}) EXPECT_EQ(fromRawValue<NotificationKind>(raw), std::nullopt);
    for (std::int64_t raw = 0; raw <= 6; ++raw) {
        EXPECT_EQ(rawValue(*fromRawValue<UserActionKind>(raw)), raw);
        EXPECT_EQ(makeUserActionKind(raw), fromRawValue<UserActionKind>(raw));
    }
    for (std::int64_t raw : {7, -1, 9}) {
        EXPECT_EQ(fromRawValue<UserActionKind>(raw), std::nullopt);
        EXPECT_EQ(makeUserActionKind(raw), std::nullopt);
    }
    EXPECT_EQ(rawValue(UserActionKind::openVantro), 5);
    EXPECT_EQ(rawValue(UserActionKind::refreshInstalledApps), 6);

    EXPECT_EQ(makeNotificationStatus(0), NotificationStatus::new_);
    EXPECT_EQ(makeNotificationStatus(1), NotificationStatus::shown);
    EXPECT_EQ(makeNotificationStatus(2), NotificationStatus::read);
    EXPECT_EQ(makeNotificationStatus(3), NotificationStatus::new_);
    EXPECT_EQ(makeNotificationStatus(-5), NotificationStatus::new_);
    EXPECT_EQ(makeNotificationKind(4), NotificationKind::ai);
    EXPECT_EQ(makeNotificationKind(2), NotificationKind::appUpdate);
    EXPECT_EQ(makeNotificationKind(5), NotificationKind::default_);
    EXPECT_EQ(makeNotificationKind(-1), NotificationKind::default_);
}

// The insert hook gives each inserted copy its own new id; a failed insert leaves the id absent.
TEST_F(RecordStore, InsertingGivesEachCopyItsOwnId) {
    DatabasePool pool(file, Configuration{});
    const NotificationModel original(std::nullopt, "c", at("2024-03-05"), "1.0", "tag", "first", std::nullopt,
                                     std::nullopt, false, std::nullopt, NotificationStatus::new_,
                                     NotificationKind::newApp);
    auto inserted = pool.write([&](Connection& connection) {
        NotificationModel a = original;
        insertRecord(connection, a);
        NotificationModel b = original;
        insertRecord(connection, b);
        return std::pair{a, b};
    });
    const NotificationModel& first = inserted.first;
    const NotificationModel& second = inserted.second;
    ASSERT_TRUE(first.id().has_value());
    ASSERT_TRUE(second.id().has_value());
    EXPECT_NE(first.id(), second.id());
    EXPECT_EQ(original.id(), std::nullopt);
    EXPECT_EQ(raw.query("SELECT id FROM notification ORDER BY id"),
              (Rows{{std::to_string(*first.id())}, {std::to_string(*second.id())}}));

    NotificationButton orphan(std::nullopt, "b", "Open", true, 999, UserActionKind::openApp, Bytes{1});
    try {
        pool.write([&](Connection& connection) { insertRecord(connection, orphan); });
        ADD_FAILURE() << "a button of no notification was inserted";
    } catch (const DatabaseError& error) {
        EXPECT_EQ(error.extendedResultCode(), SQLITE_CONSTRAINT_FOREIGNKEY);
    }
    EXPECT_EQ(orphan.id(), std::nullopt);
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM notificationButton"), "0");
}

// In a joined row the notification and its button each get their own "id" and "title"; a join
// that found no button gives none, while a button whose optional columns are all NULL is still a
// button.
TEST_F(RecordStore, JoinedRowsKeepTheTwoRecordsApart) {
    const NotificationModel notification(7, "c", at("2024-03-05"), "1.0", "tag", "notification title", std::nullopt,
                                         std::nullopt, false, std::nullopt, NotificationStatus::new_,
                                         NotificationKind::default_);
    store->save({notification,
                 NotificationButton(3, "b", "button title", true, std::nullopt, UserActionKind::openLink, Bytes{9})});
    raw.execute(kInsertNotification +
                "(8, 'c', '2024-03-04', 'v', 't', 0, NULL, 0, 0),"
                "(9, 'c', '2024-03-03', 'v', 't', 0, NULL, 0, 0)");
    raw.execute("INSERT INTO notificationButton (id, visible, notificationId) VALUES (20, 0, 9)");

    const auto fetched = store->fetchNotifications(NotificationIDs{7, 8, 9});
    ASSERT_EQ(fetched.size(), 3U);
    EXPECT_EQ(fetched[0].notification.id(), 7);
    EXPECT_EQ(fetched[0].notification.title, "notification title");
    ASSERT_TRUE(fetched[0].actionButton.has_value());
    EXPECT_EQ(fetched[0].actionButton->id(), 3);
    EXPECT_EQ(fetched[0].actionButton->title, "button title");
    EXPECT_EQ(fetched[0].actionButton->notificationId, 7);

    EXPECT_EQ(fetched[1].notification.id(), 8);
    EXPECT_EQ(fetched[1].actionButton, std::nullopt);

    EXPECT_EQ(fetched[2].notification.id(), 9);
    EXPECT_EQ(fetched[2].notification.title, std::nullopt);
    ASSERT_TRUE(fetched[2].actionButton.has_value());
    EXPECT_EQ(fetched[2].actionButton->id(), 20);
    EXPECT_FALSE(fetched[2].actionButton->visible);
    EXPECT_EQ(fetched[2].actionButton->notificationId, 9);
    EXPECT_EQ(fetched[2].actionButton->buttonId, std::nullopt);
    EXPECT_EQ(fetched[2].actionButton->title, std::nullopt);
    EXPECT_EQ(fetched[2].actionButton->actionKind, std::nullopt);
    EXPECT_EQ(fetched[2].actionButton->userAction, std::nullopt);
}

// Pairs are the same pair exactly when their notifications have the same id, so a set of
// pairs keeps one entry per notification whatever else differs.
TEST_F(RecordStore, PairsAreIdentifiedByTheirNotificationsId) {
    const auto make = [](std::optional<std::int64_t> id, std::string title, NotificationStatus status,
                         std::optional<std::int64_t> buttonId) {
        NotificationModel notification(id, "c", at("2024-03-05"), "1.0", "tag", std::move(title), std::nullopt,
                                       std::nullopt, false, std::nullopt, status, NotificationKind::default_);
        std::optional<NotificationButton> button;
        if (buttonId) button.emplace(buttonId, "b", "t", true, id, UserActionKind::openApp, std::nullopt);
        return NotificationModelInfo(std::move(notification), std::move(button));
    };
    const auto one = make(1, "one", NotificationStatus::new_, std::nullopt);
    const auto oneChanged = make(1, "other", NotificationStatus::read, 5);
    const auto oneOtherButton = make(1, "one", NotificationStatus::new_, 6);
    const auto two = make(2, "one", NotificationStatus::new_, std::nullopt);
    const auto none = make(std::nullopt, "one", NotificationStatus::new_, std::nullopt);
    const auto noneOther = make(std::nullopt, "other", NotificationStatus::shown, 5);
    const auto zero = make(0, "one", NotificationStatus::new_, std::nullopt);

    EXPECT_EQ(one, oneChanged);
    EXPECT_EQ(one, oneOtherButton);
    EXPECT_EQ(none, noneOther);
    EXPECT_FALSE(one == two);
    EXPECT_FALSE(none == zero);
    EXPECT_FALSE(none == one);
    const std::hash<NotificationModelInfo> hash;
    EXPECT_EQ(hash(one), hash(oneChanged));
    EXPECT_EQ(hash(one), hash(oneOtherButton));
    EXPECT_EQ(hash(none), hash(noneOther));

    NotificationModelInfoSet set{one, oneChanged, oneOtherButton, two, none, noneOther, zero};
    EXPECT_EQ(set.size(), 4U);

    // A notification that two button rows point to is listed twice, yet is one member of a set.
    store->save(one);
    raw.execute("INSERT INTO notificationButton (visible, notificationId) VALUES (1, 1), (0, 1)");
    store->save(two);
    const auto fetched = store->fetchNotifications(std::nullopt);
    EXPECT_EQ(fetched.size(), 3U);
    EXPECT_EQ(NotificationModelInfoSet(fetched.begin(), fetched.end()).size(), 2U);
}

template <class Record>
void expectFieldsMatchTable(const testing::RawDatabase& raw) {
    const auto& fields = RecordCoding<Record>::fields;
    const auto columns = raw.query("SELECT name, \"notnull\" FROM pragma_table_info('" +
                                   std::string(RecordCoding<Record>::tableName) + "') ORDER BY cid");
    ASSERT_EQ(columns.size(), fields.size());
    for (std::size_t i = 0; i < fields.size(); ++i) {
        SCOPED_TRACE(std::string(fields[i].name));
        EXPECT_EQ(columns[i][0], fields[i].name);
        EXPECT_EQ(columns[i][1], fields[i].optional ? "0" : "1");
    }
}

// The public keyed coding names the fields as the tables name their columns, in column order,
// with the same optionality; encoding and decoding give back the record, and decoding without a
// required field names that field.
TEST_F(RecordStore, KeyedCodingFollowsTheTables) {
    expectFieldsMatchTable<NotificationModel>(raw);
    expectFieldsMatchTable<NotificationButton>(raw);

    const NotificationModel notification(12, std::nullopt, at("2024-03-05 17:04:09.250"), "1.0", "tag", "", "body",
                                         std::nullopt, true, 33, NotificationStatus::shown,
                                         NotificationKind::appUpdate);
    auto values = encodeRecord(notification);
    EXPECT_EQ(std::get<std::int64_t>(values[10]), 1);
    EXPECT_TRUE(std::holds_alternative<std::monostate>(values[1]));
    const NotificationModel decoded = RecordCoding<NotificationModel>::decode(values);
    EXPECT_EQ(decoded.id(), 12);
    expectSameFields(decoded, notification);

    const NotificationButton button(4, std::nullopt, "t", false, 12, UserActionKind::openCollection, Bytes{0, 255});
    auto buttonValues = encodeRecord(button);
    const NotificationButton decodedButton = RecordCoding<NotificationButton>::decode(buttonValues);
    EXPECT_EQ(decodedButton.id(), 4);
    EXPECT_EQ(decodedButton.notificationId, 12);
    expectSameFields(decodedButton, button);

    values = encodeRecord(notification);
    values[3] = std::monostate{};
    const auto missingVersion =
        testing::caught<RecordDecodingError>([&] { RecordCoding<NotificationModel>::decode(values); });
    ASSERT_TRUE(missingVersion.has_value());
    EXPECT_EQ(missingVersion->column(), "version");
    buttonValues = encodeRecord(button);
    buttonValues[3] = std::monostate{};
    const auto missingVisible =
        testing::caught<RecordDecodingError>([&] { RecordCoding<NotificationButton>::decode(buttonValues); });
    ASSERT_TRUE(missingVisible.has_value());
    EXPECT_EQ(missingVisible->column(), "visible");
    buttonValues = encodeRecord(button);
    buttonValues[5] = std::int64_t{7};
    EXPECT_THROW(RecordCoding<NotificationButton>::decode(buttonValues), RecordDecodingError);
}

}  // namespace
}  // namespace notificationdb
