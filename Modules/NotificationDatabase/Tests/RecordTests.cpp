// The two records in their tables: the storage form of every field, the forms of a column that
// read as a field, reading by column name, the insert hook, joined rows, pair identity and the
// keyed coding. The record-row fuzzer checks rows of every shape against an oracle; here stands
// one example of each rule.

#include <NotificationDatabase/Database/DatabasePool.hpp>
#include <NotificationDatabase/Database/RecordPersistence.hpp>

#include "TestSupport.hpp"

#include <gtest/gtest.h>

namespace notificationdb {
namespace {

using namespace testing;
using namespace std::chrono_literals;

class RecordStore : public ::testing::Test, protected StoreOnDisk {};

const std::string kInsertNotification =
    "INSERT INTO notification (id, customerId, createdDate, version, "
    "analyticsTag, isMarketing, appId, status, notificationKind) VALUES ";

// Every field lands in its column in its storage form (another SQLite client reads it back),
// and reads back through the store unchanged: empty texts and blobs stay apart from NULL, dates
// are UTC text cut to the millisecond, also before 1970.
TEST_F(RecordStore, EveryFieldIsStoredInItsStorageFormAndReadsBack) {
    const NotificationModel full(std::nullopt, "customer-1", Timestamp(at("2024-03-05 17:04:09.250").sysTime() + 400us), "1.2.3",
                                 "unusedApps", "", "Body", "https://example.com/banner.png?a=1&b=é", true, -7,
                                 NotificationStatus::read, NotificationKind::vantroUpdate);
    const NotificationButton fullButton(std::nullopt, "button-1", "Open", true, std::nullopt,
                                        UserActionKind::openVantro, Bytes{0x00, 0x41, 0x00, 0xFF, 0x80, 0x7F, 0x00});
    const NotificationModel bare(std::nullopt, std::nullopt, at("1969-07-20 20:17:40.000"), "", "", std::nullopt,
                                 std::nullopt, std::nullopt, false, std::nullopt, NotificationStatus::shown,
                                 NotificationKind::ai);
    const NotificationButton bareButton(std::nullopt, std::nullopt, "", false, std::nullopt, std::nullopt, Bytes{});
    store->save({full, fullButton});
    store->save({bare, bareButton});
    EXPECT_TRUE(log.messages().empty());

    EXPECT_EQ(raw.query("SELECT id, customerId, typeof(customerId), createdDate, typeof(createdDate), version, "
                        "analyticsTag, title, typeof(title), body, bannerUrl, isMarketing, typeof(isMarketing), appId, "
                        "status, notificationKind FROM notification ORDER BY id"),
              (Rows{{"1", "customer-1", "text", "2024-03-05 17:04:09.250", "text", "1.2.3", "unusedApps", "", "text",
                     "Body", "https://example.com/banner.png?a=1&b=é", "1", "integer", "-7", "2", "3"},
                    {"2", "NULL", "null", "1969-07-20 20:17:40.000", "text", "", "", "NULL", "null", "NULL", "NULL",
                     "0", "integer", "NULL", "1", "4"}}));
    EXPECT_EQ(raw.query("SELECT id, buttonId, title, typeof(title), visible, notificationId, actionKind, userAction, "
                        "typeof(userAction) FROM notificationButton ORDER BY id"),
              (Rows{{"1", "button-1", "Open", "text", "1", "1", "5", "x'004100FF807F00'", "blob"},
                    {"2", "NULL", "", "text", "0", "2", "NULL", "x''", "blob"}}));

    const auto fetched = store->fetchNotifications(std::nullopt);
    ASSERT_EQ(fetched.size(), 2U);
    NotificationModel expected = full;
    expected.createdDate = at("2024-03-05 17:04:09.250");
    for (const auto& [info, notification, expectedButton] :
         {std::tuple{fetched[0], expected, fullButton}, std::tuple{fetched[1], bare, bareButton}}) {
        EXPECT_EQ(fieldsOf(info.notification), fieldsOf(notification));
        ASSERT_TRUE(info.actionButton.has_value());
        EXPECT_EQ(info.actionButton->notificationId, info.notification.id());
        NotificationButton stored = *info.actionButton;
        stored.notificationId = std::nullopt;
        EXPECT_EQ(fieldsOf(stored), fieldsOf(expectedButton));
    }
}

// Values that other writers of the shared file may leave behind read as the record's field:
// the date with a T, shortened, or as seconds since 1970, and any non-zero integer as true.
TEST_F(RecordStore, ReadsEveryAcceptedFormOfAColumn) {
    raw.execute(kInsertNotification +
                "(1, 'c', '2024-03-05T17:04:09.250', 'v', 't', 7, NULL, 2, 4),"
                "(2, 'c', '2024-03-04 17:04', 'v', 't', 0, NULL, 0, 0),"
                "(3, 'c', 1709485200, 'v', 't', 0, NULL, 0, 0),"
                "(4, 'c', 1709398800.25, 'v', 't', 0, NULL, 0, 0),"
                "(5, 'c', '2024-03-01', 'v', 't', 0, NULL, 0, 0)");
    raw.execute("INSERT INTO notificationButton (id, visible, notificationId) VALUES (1, 2, 1)");

    const std::vector<std::string> dates{"2024-03-05 17:04:09.250", "2024-03-04 17:04:00.000",
                                         "2024-03-03 17:00:00.000", "2024-03-02 17:00:00.250",
                                         "2024-03-01 00:00:00.000"};
    for (std::size_t i = 0; i < dates.size(); ++i) {
        const auto fetched = store->fetchNotifications(NotificationIDs{static_cast<std::int64_t>(i + 1)});
        ASSERT_EQ(fetched.size(), 1U) << dates[i];
        EXPECT_EQ(fetched[0].notification.createdDate, at(dates[i])) << dates[i];
        EXPECT_EQ(fetched[0].notification.isMarketing, i == 0);
        EXPECT_EQ(fetched[0].actionButton.has_value() && fetched[0].actionButton->visible, i == 0);
    }
    EXPECT_TRUE(log.messages().empty());
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
    EXPECT_EQ(fieldsOf(*minimal),
              fieldsOf(NotificationModel(std::nullopt, std::nullopt, at("2024-03-05"), "1.0", "tag", std::nullopt,
                                         std::nullopt, std::nullopt, false, std::nullopt, NotificationStatus::read,
                                         NotificationKind::newApp)));
    EXPECT_EQ(minimal->id(), std::nullopt);

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
    EXPECT_EQ(fieldsOf(*button), fieldsOf(NotificationButton(std::nullopt, std::nullopt, std::nullopt, false,
                                                             std::nullopt, std::nullopt, std::nullopt)));
    for (const std::string sql : {"SELECT 1 AS id, NULL AS visible", "SELECT 1 AS id, 5 AS actionKind"}) {
        std::string failed;
        EXPECT_FALSE(readOneRow<NotificationButton>(pool, sql, &failed)) << sql;
        EXPECT_EQ(failed, "visible") << sql;
    }
}

// Strict construction knows only the cases; the lenient one always yields a case.
TEST(RecordEnumerations, StrictAndLenientConstruction) {
    for (std::int64_t raw = -1; raw <= 7; ++raw) {
        const auto status = raw >= 0 && raw <= 2 ? std::optional(static_cast<NotificationStatus>(raw)) : std::nullopt;
        const auto kind = raw >= 0 && raw <= 4 ? std::optional(static_cast<NotificationKind>(raw)) : std::nullopt;
        const auto action = raw >= 0 && raw <= 6 ? std::optional(static_cast<UserActionKind>(raw)) : std::nullopt;
        EXPECT_EQ(fromRawValue<NotificationStatus>(raw), status) << raw;
        EXPECT_EQ(fromRawValue<NotificationKind>(raw), kind) << raw;
        EXPECT_EQ(fromRawValue<UserActionKind>(raw), action) << raw;
        EXPECT_EQ(makeNotificationStatus(raw), status.value_or(NotificationStatus::new_)) << raw;
        EXPECT_EQ(makeNotificationKind(raw), kind.value_or(NotificationKind::default_)) << raw;
        EXPECT_EQ(makeUserActionKind(raw), action) << raw;
    }
}

// The insert hook gives each inserted copy its own new id; a failed insert leaves the id absent.
TEST_F(RecordStore, InsertingGivesEachCopyItsOwnId) {
    DatabasePool pool(file, Configuration{});
    const NotificationModel original = note();
    const auto [first, second] = pool.write([&](Connection& connection) {
        NotificationModel a = original;
        NotificationModel b = original;
        insertRecord(connection, a);
        insertRecord(connection, b);
        return std::pair{a.id(), b.id()};
    });
    EXPECT_EQ(raw.query("SELECT id FROM notification ORDER BY id"),
              (Rows{{std::to_string(first.value())}, {std::to_string(second.value())}}));
    EXPECT_EQ(original.id(), std::nullopt);

    NotificationButton orphan(std::nullopt, "b", "Open", true, 999, UserActionKind::openApp, Bytes{1});
    const auto error =
        caught<DatabaseError>([&] { pool.write([&](Connection& connection) { insertRecord(connection, orphan); }); });
    EXPECT_EQ(error.value().extendedResultCode(), SQLITE_CONSTRAINT_FOREIGNKEY);
    EXPECT_EQ(orphan.id(), std::nullopt);
}

// In a joined row the notification and its button each get their own "id" and "title"; a join
// that found no button gives none, while a button whose optional columns are all NULL is still a
// button.
TEST_F(RecordStore, JoinedRowsKeepTheTwoRecordsApart) {
    store->save({note({.id = 7, .title = "notification title"}),
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

    EXPECT_EQ(fetched[1].notification.id(), 8);
    EXPECT_EQ(fetched[1].actionButton, std::nullopt);

    EXPECT_EQ(fetched[2].notification.title, std::nullopt);
    ASSERT_TRUE(fetched[2].actionButton.has_value());
    EXPECT_EQ(fetched[2].actionButton->id(), 20);
    EXPECT_EQ(fieldsOf(*fetched[2].actionButton), fieldsOf(NotificationButton(std::nullopt, std::nullopt, std::nullopt,
                                                                              false, 9, std::nullopt, std::nullopt)));
}

// Pairs are the same pair exactly when their notifications have the same id, so a set of
// pairs keeps one entry per notification whatever else differs.
TEST(RecordPairs, PairsAreIdentifiedByTheirNotificationsId) {
    const auto make = [](std::optional<std::int64_t> id, std::string title, std::optional<std::int64_t> buttonId) {
        return NotificationModelInfo(note({.id = id, .title = std::move(title)}),
                                     buttonId ? std::optional(button(buttonId)) : std::nullopt);
    };
    const auto one = make(1, "one", std::nullopt);
    const auto oneChanged = make(1, "other", 5);
    const auto two = make(2, "one", std::nullopt);
    const auto none = make(std::nullopt, "one", std::nullopt);
    const auto noneChanged = make(std::nullopt, "other", 5);
    const auto zero = make(0, "one", std::nullopt);

    EXPECT_EQ(one, oneChanged);
    EXPECT_EQ(none, noneChanged);
    EXPECT_FALSE(one == two);
    EXPECT_FALSE(none == zero);
    EXPECT_EQ(NotificationModelInfoSet({one, oneChanged, two, none, noneChanged, zero}).size(), 4U);
}

template <class Record>
void expectFieldsMatchTable(const RawDatabase& raw) {
    Rows fields;
    for (const auto& field : RecordCoding<Record>::fields) {
        fields.push_back({std::string(field.name), field.optional ? "0" : "1"});
    }
    EXPECT_EQ(raw.query("SELECT name, \"notnull\" FROM pragma_table_info('" +
                        std::string(RecordCoding<Record>::tableName) + "') ORDER BY cid"),
              fields);
}

// The public keyed coding names the fields as the tables name their columns, in column order,
// with the same optionality; decoding gives back the record, and decoding without a required
// field or with a value out of range names that field.
TEST_F(RecordStore, KeyedCodingFollowsTheTables) {
    expectFieldsMatchTable<NotificationModel>(raw);
    expectFieldsMatchTable<NotificationButton>(raw);

    const NotificationModel notification = note({.id = 12, .kind = NotificationKind::appUpdate});
    auto values = encodeRecord(notification);
    EXPECT_EQ(encodeRecord(RecordCoding<NotificationModel>::decode(values)), encodeRecord(notification));
    values = encodeRecord(notification);
    values[3] = std::monostate{};
    EXPECT_EQ(caught<RecordDecodingError>([&] { RecordCoding<NotificationModel>::decode(values); }).value().column(),
              "version");

    auto buttonValues = encodeRecord(button(4));
    buttonValues[5] = std::int64_t{7};
    EXPECT_EQ(
        caught<RecordDecodingError>([&] { RecordCoding<NotificationButton>::decode(buttonValues); }).value().column(),
        "actionKind");
}

}  // namespace
}  // namespace notificationdb
