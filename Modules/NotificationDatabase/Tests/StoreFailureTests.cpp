// What each operation does when the database fails it: one table of fault × operation, with
// the answer, the exact message, the rows that change (none, unless the operation's contract
// keeps the work of statements that ran) and the notices. The faults are made the way other
// programs and users make them: triggers that refuse, rows no record can be read from, a column
// dropped, a read-only configuration, another writer holding the lock. A second table opens
// stores on files that cannot serve.

#include "Testing.hpp"

#include <NotificationDatabase/DatabaseError.hpp>
#include <NotificationDatabase/ExistingStore.hpp>
#include <NotificationDatabase/NotificationUpdater/NotificationUpdaterImpl.hpp>

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <type_traits>

namespace notificationdb {
namespace {

using testing::RawDatabase;

// A store is made only by `create`, which starts the observation its notices depend on.
static_assert(!std::is_constructible_v<NotificationDatabaseImpl, const NotificationDatabaseConfig&>);

NotificationModelInfo entry(std::optional<std::int64_t> id, NotificationKind kind, std::string version,
                            std::optional<std::int64_t> buttonID) {
    NotificationModel n(id, "c", parseDateText("2026-11-01").value(), std::move(version), "tag", std::nullopt,
                        std::nullopt, std::nullopt, false, std::nullopt, NotificationStatus::new_, kind);
    if (!buttonID) return NotificationModelInfo(n);
    return {n, NotificationButton(buttonID, "b", "Open", true, std::nullopt, UserActionKind::openApp, Bytes{1})};
}

using Operation = std::function<std::string(NotificationDatabaseImpl&)>;

struct Case {
    const char* fault;  // SQL another program runs first, or a marker the fixture knows
    const char* operation;
    Operation run;
    std::string answer;
    std::string message;                    // empty: nothing logged
    std::vector<const char*> changes = {};  // SQL that turns the tables before into those after
    int notices = 0;
};

const Operation count = [](auto& s) { return std::to_string(s.notificationsCount()); };
const Operation fetch = [](auto& s) { return std::to_string(s.fetchNotifications(std::nullopt).size()) + " rows"; };
const Operation saveNew = [](auto& s) { return s.save(entry(9, NotificationKind::ai, "9", 9)), ""; };
const Operation deleteAll = [](auto& s) { return s.deleteAll(), ""; };
const char* const kBadStatus = "UPDATE notification SET status = 7 WHERE id = 2";
const char* const kRefuseDeleting2 =
    "CREATE TRIGGER refuse BEFORE DELETE ON notification WHEN old.id = 2 BEGIN SELECT RAISE(FAIL, 'refused'); END";
const std::string kUnreadable = R"(could not read column "status" of "notification": integer is no NotificationStatus)";
const std::string kRefused = "SQLite error 19 (SQLITE_CONSTRAINT_TRIGGER): refused";
const std::string kReadOnly = "SQLite error 8 (SQLITE_READONLY): attempt to write a readonly database";
const std::string kUnsaved = "Unable to save wrapped notification: ";

// clang-format off
const std::vector<Case> kCases = {
    {kBadStatus, "fetch", fetch, "0 rows", "Unable to read wrapped notifications: " + kUnreadable},
    {kBadStatus, "count", count, "3", ""},
    {kBadStatus, "containsNotification",
     [](auto& s) { return std::to_string(s.containsNotification(NotificationKind::appUpdate, "c", {}, "2")); }, "0",
     ""},
    {kBadStatus, "containsVantro", [](auto& s) { return std::to_string(s.containsVantro("2")); }, "1", ""},
    {kBadStatus, "save a content duplicate",
     [](auto& s) { return s.save(entry(std::nullopt, NotificationKind::appUpdate, "2", std::nullopt)), ""; }, "",
     kUnsaved + kUnreadable},
    {kBadStatus, "deleteAllNotifications",
     [](auto& s) { return s.deleteAllNotifications(NotificationKind::appUpdate), ""; }, "",
     "Unable to delete all notification with kind 2: " + kUnreadable},
    {kBadStatus, "cleanUp long after", [](auto& s) {
         std::shared_ptr<NotificationDatabaseProtocol> store(&s, [](auto*) {});
         NotificationUpdaterImpl(store, [] { return parseDateText("2099-01-01").value(); }).cleanUp();
         return "";
     }, "", "Unable to read wrapped notifications: " + kUnreadable},
    {"ALTER TABLE notification DROP COLUMN bannerUrl", "fetch", fetch, "3 rows", ""},
    {"ALTER TABLE notification DROP COLUMN bannerUrl", "save", saveNew, "",
     kUnsaved + "SQLite error 1 (SQLITE_ERROR): table notification has no column named bannerUrl"},
    {"CREATE TRIGGER refuse BEFORE INSERT ON notificationButton BEGIN SELECT RAISE(ABORT, 'refused'); END", "save",
     saveNew, "", kUnsaved + kRefused},
    {"CREATE TRIGGER refuse BEFORE UPDATE ON notification BEGIN SELECT RAISE(ABORT, 'refused'); END", "updateStatus",
     [](auto& s) { return s.updateStatus({1, 2}, NotificationStatus::read), ""; }, "",
     "Unable to mark as read notification IDs: [1, 2]: " + kRefused},
    {"CREATE TRIGGER refuse BEFORE UPDATE ON notificationButton WHEN old.notificationId = 2 "
     "BEGIN SELECT RAISE(ABORT, 'refused'); END", "updateButtonVisibility",
     [](auto& s) { return s.updateButtonVisibility({1, 2, 3}, false), ""; }, "", "",
     {"UPDATE expected.notificationButton SET visible = 0 WHERE notificationId = 1"}},
    {kRefuseDeleting2, "deleteAll", deleteAll, "", "",
     {"DELETE FROM expected.notification WHERE id = 1", "DELETE FROM expected.notificationButton"}, 1},
    {kRefuseDeleting2, "delete", [](auto& s) {  // notifications 1 to 3, named by id alone
         const auto n = [](std::int64_t id) { return entry(id, NotificationKind::default_, "", std::nullopt); };
         return s.deleteNotifications({n(1), n(2), n(3)}), ""; }, "", "",
     {"DELETE FROM expected.notification WHERE id = 1",
      "DELETE FROM expected.notificationButton WHERE notificationId = 1"}, 1},
    {"CREATE TRIGGER refuse AFTER DELETE ON notification BEGIN SELECT RAISE(ABORT, 'refused'); END", "deleteAll",
     deleteAll, "", "", {"DELETE FROM expected.notificationButton"}},
    // Without a child table SQLite empties "notification" in one step; the notice must still go.
    {"DROP TABLE notificationButton", "deleteAll", deleteAll, "", "", {"DELETE FROM expected.notification"}, 1},
    {"read-only store", "save", saveNew, "", kUnsaved + kReadOnly},
    {"read-only store", "updateStatus", [](auto& s) { return s.updateStatus({}, NotificationStatus::read), ""; }, "",
     "Unable to mark as read notification IDs: []: " + kReadOnly},
    {"read-only store", "deleteAll", deleteAll, "", ""},
    {"read-only store", "fetch", fetch, "3 rows", ""},
    {"BEGIN IMMEDIATE", "open and count", count, "3", ""},
    {"a scheduler that writes", "save", [](auto& s) {
         MainQueue::main().setScheduler([&s](auto, auto) { s.save(entry(8, NotificationKind::ai, "8", {})); });
         s.save(entry(9, NotificationKind::ai, "9", std::nullopt));
         MainQueue::main().setScheduler({});
         return "";
     }, "", kUnsaved + "a write of the database was started from inside another write of it on the same thread",
     {"INSERT INTO expected.notification SELECT 9, 'c', createdDate, '9', analyticsTag, NULL, NULL, NULL, 0, NULL, 0, "
      "4 FROM notification WHERE id = 1"}},
};
// clang-format on

void PrintTo(const Case& c, std::ostream* out) {
    *out << c.operation << " after " << c.fault;
}

class StoreFailure : public ::testing::TestWithParam<Case> {};

TEST_P(StoreFailure, GivesTheNeutralAnswerTheMessageAndOnlyTheChangesItKeeps) {
    const Case& c = GetParam();
    testing::TemporaryDirectory directory;
    const NotificationDatabaseConfig config(directory / "db.sqlite",
                                            Configuration{false, BusyMode::timeout(0.05), false});
    auto store = NotificationDatabaseImpl::create(config);
    store->save(entry(1, NotificationKind::newApp, "1", 1));
    store->save(entry(2, NotificationKind::appUpdate, "2", 2));
    store->save(entry(3, NotificationKind::default_, "3", 3));
    RawDatabase other(config.storageURL());
    const std::string fault = c.fault;
    if (fault == "read-only store") {
        store = NotificationDatabaseImpl::create(
            NotificationDatabaseConfig(config.storageURL(), Configuration{true, BusyMode::timeout(0.05), true}));
    } else if (fault != "a scheduler that writes") {
        other.execute(fault);
        if (fault == "BEGIN IMMEDIATE") store = NotificationDatabaseImpl::create(config);
    }
    // The tables as they must be afterwards: a copy made after the fault, changed as expected.
    other.execute("ATTACH ':memory:' AS expected");
    std::vector<std::string> tables{"notification", "notificationButton"};
    if (fault.starts_with("DROP TABLE")) tables.pop_back();
    for (const auto& table : tables)
        other.execute("CREATE TABLE expected." + table + " AS SELECT * FROM main." + table);
    for (const char* change : c.changes) other.execute(change);
    testing::LogCapture log;
    testing::ScheduledNotices notices;
    EXPECT_EQ(c.run(*store), c.answer);
    std::vector<std::string> messages;
    for (const auto& logged : log.take()) messages.push_back(logged.message);
    EXPECT_EQ(messages, c.message.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.message});
    EXPECT_EQ(int(notices.take().size()), c.notices);
    if (fault == "BEGIN IMMEDIATE") other.execute("COMMIT");
    for (const auto& table : tables) {
        const std::string main = "SELECT * FROM main." + table, expected = "SELECT * FROM expected." + table;
        EXPECT_EQ(other.query("SELECT * FROM (" + main + " EXCEPT " + expected + ") UNION ALL SELECT * FROM (" +
                              expected + " EXCEPT " + main + ")"),
                  std::vector<std::vector<std::string>>{})
            << table << " is not as expected";
    }
}

INSTANTIATE_TEST_SUITE_P(FaultsAndOperations, StoreFailure, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return "case" + std::to_string(info.index); });

// Opening: every file that cannot serve fails creation with the database's error, and nothing is
// logged; a lock held by another writer does not keep a store from opening.
TEST(StoreOpening, FailsWithTheDatabaseErrorOnFilesThatCannotServe) {
    testing::TemporaryDirectory directory;
    std::filesystem::create_directory(directory / "a directory");
    std::ofstream(directory / "garbage") << std::string(4096, 'x');
    RawDatabase(directory / "empty").execute("CREATE TABLE other (x)");
    const std::tuple<std::string, bool, int> cases[] = {
        // file, read-only, result code
        {"garbage/db.sqlite", false, 14},  // SQLITE_CANTOPEN: its folder cannot be made
        {"a directory", false, 14},
        {"garbage", false, 26},  // SQLITE_NOTADB
        {"absent.sqlite", true, 14},
        {"empty", true, 8},  // a read-only store cannot create the tables: SQLITE_READONLY
    };
    testing::LogCapture log;
    for (const auto& [file, readOnly, code] : cases) {
        try {
            NotificationDatabaseImpl::create(NotificationDatabaseConfig(
                directory / file, Configuration{readOnly, BusyMode::immediateError(), false}));
            ADD_FAILURE() << file << " opened";
        } catch (const DatabaseError& error) {
            EXPECT_EQ(error.resultCode(), code) << file << ": " << error.what();
            // A file that cannot be opened at all is named, since SQLite's message does not say which.
            EXPECT_TRUE(code != 14 || error.message().ends_with(": " + (directory / file).string())) << error.what();
        }
    }
    // A reader that starts first opens nothing, silently, until a writer has made file and tables.
    const auto reading = [&](auto file) { return NotificationDatabaseConfig(directory / file, {true}); };
    EXPECT_FALSE(openExistingStore(reading("absent.sqlite")) || openExistingStore(reading("empty")));
    EXPECT_THROW(openExistingStore(reading("garbage")), DatabaseError);
    NotificationDatabaseImpl::create(NotificationDatabaseConfig(directory / "empty", Configuration{}));
    EXPECT_NE(openExistingStore(reading("empty")), nullptr);
    EXPECT_FALSE(std::filesystem::exists(directory / "absent.sqlite")) << "a read-only store created its file";
    const auto logged = log.take();
    ASSERT_EQ(logged.size(), 1U) << "only the folder that cannot be made is logged";
    EXPECT_EQ(logged[0].loggerPath, "root.notification-database-config");
    EXPECT_EQ(logged[0].message.rfind("Unable to create database directory: ", 0), 0U) << logged[0].message;
}

}  // namespace
}  // namespace notificationdb
