// What each operation does when the database fails it, fault × operation: the answer, the exact
// message, the rows that change (none, unless the contract keeps the work of statements that ran) and
// the notices. Faults are made as other programs make them: refusing triggers, unreadable rows,
// dropped columns and tables, a read-only store, another writer's lock, a failing disk.

#include "FaultyDisk.hpp"
#include "Testing.hpp"

#include <NotificationDatabase/Database/DatabaseError.hpp>
#include <NotificationDatabase/ExistingStore.hpp>
#include <NotificationDatabase/NotificationUpdater/NotificationUpdaterImpl.hpp>

#include <gtest/gtest.h>

#include <cctype>
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
    const auto n = testing::notification(id, "c", kind, std::move(version), parseDateText("2026-11-01").value());
    if (!buttonID) return NotificationModelInfo(n);
    return {n, NotificationButton(buttonID, "b", "Open", true, std::nullopt, UserActionKind::openApp, Bytes{1})};
}

using Operation = std::function<std::string(NotificationDatabaseImpl&)>;

// What another program (or the user) does to the file first: SQL, or a marker the fixture knows.
struct Fault {
    const char* name;
    const char* sql;
    // The disk fails at the first call of this kind, and at every later write, sync and truncate.
    testing::FaultyDisk::Call disk = testing::FaultyDisk::write;
    int diskError = SQLITE_OK;
};

struct Case {
    Fault fault;
    const char* operation;
    Operation run;
    std::string answer;
    std::string message;                    // empty: nothing logged
    std::vector<const char*> changes = {};  // SQL that turns the tables before into those after
    int notices = 0;
    friend void PrintTo(const Case& c, std::ostream* out) { *out << c.fault.name << " x " << c.operation; }
};

const Operation count = [](auto& s) { return std::to_string(s.notificationsCount()); };
const Operation fetch = [](auto& s) { return std::to_string(s.fetchNotifications(std::nullopt).size()) + " rows"; };
const Operation saveNew = [](auto& s) { return s.save(entry(9, NotificationKind::ai, "9", 9)), ""; };
const Operation deleteAll = [](auto& s) { return s.deleteAll(), ""; };
const Operation hideButtons = [](auto& s) { return s.updateButtonVisibility({1, 2}, false), ""; };
const Operation markRead = [](auto& s) { return s.updateStatus({1, 2}, NotificationStatus::read), ""; };
const Operation deleteAllAI = [](auto& s) { return s.deleteAllNotifications(NotificationKind::ai), ""; };
const Operation cleanUpLongAfter = [](auto& s) {
    std::shared_ptr<NotificationDatabaseProtocol> store(&s, [](auto*) {});
    NotificationUpdaterImpl(store, [] { return parseDateText("2099-01-01").value(); }).cleanUp();
    return "";
};
const Operation deleteSome = [](auto& s) {  // notifications 1 to 3, named by id alone
    const auto n = [](std::int64_t id) { return entry(id, NotificationKind::default_, "", std::nullopt); };
    return s.deleteNotifications({n(1), n(2), n(3)}), "";
};
const Fault badStatus{"status 7", "UPDATE notification SET status = 7 WHERE id = 2"};
const Fault refuseDeleting2{
    "a trigger refusing with FAIL to delete 2",
    "CREATE TRIGGER refuse BEFORE DELETE ON notification WHEN old.id = 2 BEGIN SELECT RAISE(FAIL, 'refused'); END"};
const Fault noNotifications{"a dropped notification table", "DROP TABLE notification"};
const Fault noButtons{"a dropped button table", "DROP TABLE notificationButton"};
const Fault readOnlyStore{"a read-only store", ""};
const Fault writingScheduler{"a main queue that saves as a job is scheduled", ""};
const Fault lock{"another writer's lock", "BEGIN IMMEDIATE"};
// 3000 more notifications of 1000 bytes of text each.
const char* const manyRows =
    "WITH RECURSIVE n(i) AS (SELECT 10 UNION ALL SELECT i + 1 FROM n WHERE i < 3000) INSERT INTO notification "
    "SELECT i, 'c', '2026-01-01 00:00:00.000', i, 't', NULL, hex(randomblob(500)), NULL, 0, NULL, 0, 0 FROM n";
const std::string unreadable = R"(could not read column "status" of "notification": integer is no NotificationStatus)";
const std::string refusedError = "SQLite error 19 (SQLITE_CONSTRAINT_TRIGGER): refused";
const std::string readOnlyError = "SQLite error 8 (SQLITE_READONLY): attempt to write a readonly database";
const std::string unsaved = "Unable to save wrapped notification: ";
const std::string unread = "Unable to read wrapped notifications: ";
const std::string noTable = "SQLite error 1 (SQLITE_ERROR): no such table: notification";
const std::string busy = "SQLite error 5 (SQLITE_BUSY): database is locked";

// clang-format off
const std::vector<Case> failureCases = {
    {badStatus, "fetch", fetch, "0 rows", unread + unreadable},
    {badStatus, "count", count, "3", ""},
    {badStatus, "containsNotification",
     [](auto& s) { return std::to_string(s.containsNotification(NotificationKind::appUpdate, "c", {}, "2")); }, "0", ""},
    {badStatus, "containsVantro", [](auto& s) { return std::to_string(s.containsVantro("2")); }, "1", ""},
    {badStatus, "save a content duplicate",
     [](auto& s) { return s.save(entry(std::nullopt, NotificationKind::appUpdate, "2", std::nullopt)), ""; }, "",
     unsaved + unreadable},
    {badStatus, "deleteAllNotifications",
     [](auto& s) { return s.deleteAllNotifications(NotificationKind::appUpdate), ""; }, "",
     "Unable to delete all notification with kind 2: " + unreadable},
    {badStatus, "cleanUp long after", cleanUpLongAfter, "", unread + unreadable},
    {{"kind 7", "UPDATE notification SET notificationKind = 7 WHERE id = 3"}, "fetch", fetch, "0 rows",
     unread + R"(could not read column "notificationKind" of "notification": integer is no NotificationKind)"},
    {{"actionKind 9", "UPDATE notificationButton SET actionKind = 9 WHERE id = 1"}, "fetch", fetch, "0 rows",
     unread + R"(could not read column "actionKind" of "notificationButton": integer is no UserActionKind)"},
    {{"a dropped column", "ALTER TABLE notification DROP COLUMN bannerUrl"}, "save", saveNew, "",
     unsaved + "SQLite error 1 (SQLITE_ERROR): table notification has no column named bannerUrl"},
    {{"a trigger refusing a button", "CREATE TRIGGER refuse BEFORE INSERT ON notificationButton "
                                     "BEGIN SELECT RAISE(ABORT, 'refused'); END"}, "save", saveNew, "", unsaved + refusedError},
    {{"a trigger refusing updates", "CREATE TRIGGER refuse BEFORE UPDATE ON notification "
                                    "BEGIN SELECT RAISE(ABORT, 'refused'); END"}, "updateStatus", markRead, "",
     "Unable to mark as read notification IDs: [1, 2]: " + refusedError},
    {{"a trigger refusing the button of 2", "CREATE TRIGGER refuse BEFORE UPDATE ON notificationButton "
                                            "WHEN old.notificationId = 2 BEGIN SELECT RAISE(ABORT, 'refused'); END"},
     "updateButtonVisibility", [](auto& s) { return s.updateButtonVisibility({1, 2, 3}, false), ""; }, "", "",
     {"UPDATE expected.notificationButton SET visible = 0 WHERE notificationId = 1"}},
    {refuseDeleting2, "deleteAll", deleteAll, "", "",
     {"DELETE FROM expected.notification WHERE id = 1", "DELETE FROM expected.notificationButton"}, 1},
    {refuseDeleting2, "delete", deleteSome, "", "",
     {"DELETE FROM expected.notification WHERE id = 1",
      "DELETE FROM expected.notificationButton WHERE notificationId = 1"}, 1},
    {{"a trigger refusing after deleting", "CREATE TRIGGER refuse AFTER DELETE ON notification "
                                           "BEGIN SELECT RAISE(ABORT, 'refused'); END"},
     "deleteAll", deleteAll, "", "", {"DELETE FROM expected.notificationButton"}},
    // Without a table, reads fail and deletions (which drop their failures) go as far as the other
    // table lets them; without the child table "notification" empties in one step, with its notice.
    {noNotifications, "count", count, "0", "Unable to fetch notifications count: " + noTable},
    {noNotifications, "fetch", fetch, "0 rows", unread + noTable},
    {noNotifications, "containsVantro", [](auto& s) { return std::to_string(s.containsVantro("9")); }, "1", ""},
    {noNotifications, "containsNotification",
     [](auto& s) { return std::to_string(s.containsNotification(NotificationKind::newApp, "c", {}, {})); }, "0", ""},
    {noNotifications, "save", saveNew, "", unsaved + noTable},
    {noNotifications, "updateStatus", markRead, "", "Unable to mark as read notification IDs: [1, 2]: " + noTable},
    {noNotifications, "updateButtonVisibility", hideButtons, "", "",
     {"UPDATE expected.notificationButton SET visible = 0 WHERE notificationId IN (1, 2)"}},
    {noNotifications, "delete", deleteSome, "", ""},
    {noNotifications, "deleteAll", deleteAll, "", ""},
    {noNotifications, "deleteAllNotifications", deleteAllAI, "", "Unable to delete all notification with kind 4: " + noTable},
    {noButtons, "fetch", fetch, "0 rows", unread + noTable + "Button"},
    {noButtons, "save", saveNew, "", unsaved + noTable + "Button"},
    {noButtons, "save without a button", [](auto& s) { return s.save(entry(9, NotificationKind::ai, "9", {})), ""; },
     "", "", {"INSERT INTO expected.notification SELECT 9, 'c', createdDate, '9', analyticsTag, NULL, NULL, NULL, 0, "
              "NULL, 0, 4 FROM notification WHERE id = 1"}, 1},
    {noButtons, "updateButtonVisibility", hideButtons, "", ""},
    {noButtons, "delete", deleteSome, "", "", {"DELETE FROM expected.notification"}, 1},
    {noButtons, "deleteAll", deleteAll, "", "", {"DELETE FROM expected.notification"}, 1},
    // A disk failing under 3 MB of rows: pages spill before the commit and the failure ends the whole
    // transaction, so the second DELETE must not run on its own.
    {{"a full disk under 3 MB of rows", manyRows, testing::FaultyDisk::write, SQLITE_FULL},
     "deleteAll", deleteAll, "", "Unable to reset notification database: SQLite error 13 (SQLITE_FULL): database or disk is full"},
    {{"a dying disk under 3 MB of rows", manyRows, testing::FaultyDisk::write, SQLITE_IOERR_WRITE},
     "deleteAll", deleteAll, "", "Unable to reset notification database: SQLite error 10 (SQLITE_IOERR_WRITE): disk I/O error"},
    // A read-only store reads, skips what it holds and drops what its contract drops, silently.
    {readOnlyStore, "save", saveNew, "", unsaved + readOnlyError},
    {readOnlyStore, "save a stored id", [](auto& s) { return s.save(entry(1, NotificationKind::ai, "9", 9)), ""; }, "", ""},
    {readOnlyStore, "updateStatus", [](auto& s) { return s.updateStatus({}, NotificationStatus::read), ""; }, "",
     "Unable to mark as read notification IDs: []: " + readOnlyError},
    {readOnlyStore, "updateButtonVisibility", hideButtons, "", ""},
    {readOnlyStore, "delete", deleteSome, "", ""},
    {readOnlyStore, "deleteAll", deleteAll, "", ""},
    {readOnlyStore, "fetch", fetch, "3 rows", ""},
    // Another writer's lock fails every write (after the busy time-out), and no open or read.
    {lock, "open and count", count, "3", ""},
    {lock, "open read-only and fetch", fetch, "3 rows", ""},
    {lock, "save", saveNew, "", unsaved + busy},
    {lock, "updateStatus", markRead, "", "Unable to mark as read notification IDs: [1, 2]: " + busy},
    {lock, "updateButtonVisibility", hideButtons, "", "Unable to change button visibility for notification IDs: [1, 2]: " + busy},
    {lock, "delete", deleteSome, "", "Unable to reset notifications database: " + busy},
    {lock, "deleteAllNotifications", deleteAllAI, "", "Unable to delete all notification with kind 4: " + busy},
    {lock, "deleteAll", deleteAll, "", "Unable to reset notification database: " + busy},
    {lock, "cleanUp long after", cleanUpLongAfter, "", "Unable to reset notifications database: " + busy},
    {writingScheduler, "save", [](auto& s) { return s.save(entry(9, NotificationKind::ai, "9", std::nullopt)), ""; },
     "", unsaved + "a write of the database was started from inside another write of it on the same thread",
     {"INSERT INTO expected.notification SELECT 9, 'c', createdDate, '9', analyticsTag, NULL, NULL, NULL, 0, NULL, 0, "
      "4 FROM notification WHERE id = 1"},
     1},
};
// clang-format on

class StoreFailure : public ::testing::TestWithParam<Case> {};

TEST_P(StoreFailure, GivesTheNeutralAnswerTheMessageAndOnlyTheChangesItKeeps) {
    const Case& c = GetParam();
    testing::FaultyDisk::install();
    testing::TemporaryDirectory directory;
    testing::TestServices services;
    const NotificationDatabaseConfig config(directory / "db.sqlite",
                                            Configuration{false, BusyMode::timeout(0.05), false});
    auto store = NotificationDatabaseImpl::create(config, services.services());
    for (std::int64_t i = 1; i <= 3; ++i) store->save(entry(i, testing::storedKinds[i % 3], std::to_string(i), i));
    RawDatabase other(config.storageURL());
    const std::string fault = c.fault.sql, operation = c.operation;
    other.execute(fault);
    const bool readOnly = c.fault.name == readOnlyStore.name || operation.starts_with("open read-only");
    if (readOnly || operation.starts_with("open"))
        store = NotificationDatabaseImpl::create(
            NotificationDatabaseConfig(config.storageURL(), Configuration{readOnly, BusyMode::timeout(0.05), readOnly}),
            services.services());
    if (c.fault.name == writingScheduler.name)
        services.whenScheduled = [&store] { store->save(entry(8, NotificationKind::ai, "8", {})); };
    // The tables as they must be afterwards: a copy made after the fault, changed as expected.
    other.execute("ATTACH ':memory:' AS expected");
    std::vector<std::string> tables{"notification", "notificationButton"};
    std::erase_if(tables, [&](const auto& table) { return fault == "DROP TABLE " + table; });
    for (const auto& table : tables)
        other.execute("CREATE TABLE expected." + table + " AS SELECT * FROM main." + table);
    for (const char* change : c.changes) other.execute(change);
    services.takeLog(), services.takeJobs();
    auto& disk = testing::FaultyDisk::install();
    if (c.fault.diskError != SQLITE_OK) disk.failAt(c.fault.disk, 1, c.fault.diskError, true);
    EXPECT_EQ(c.run(*store), c.answer);
    disk.repair();
    std::vector<std::string> messages;
    for (const auto& logged : services.takeLog()) messages.push_back(logged.message);
    EXPECT_EQ(messages, c.message.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.message});
    EXPECT_EQ(int(services.takeJobs().size()), c.notices);
    if (fault == "BEGIN IMMEDIATE") other.execute("COMMIT");
    for (const auto& table : tables) {
        const std::string main = "SELECT * FROM main." + table, expected = "SELECT * FROM expected." + table;
        EXPECT_EQ(other.query("SELECT * FROM (" + main + " EXCEPT " + expected + ") UNION ALL SELECT * FROM (" +
                              expected + " EXCEPT " + main + ")"),
                  std::vector<std::vector<std::string>>{})
            << table << " is not as expected";
    }
}

// Named fault_x_operation, in letters, digits and underscores.
INSTANTIATE_TEST_SUITE_P(FaultsAndOperations, StoreFailure, ::testing::ValuesIn(failureCases), [](const auto& info) {
    std::string name;
    for (const char c : std::string(info.param.fault.name) + " x " + info.param.operation)
        name += std::isalnum(static_cast<unsigned char>(c)) != 0 ? c : name.empty() || name.back() == '_' ? '\0' : '_';
    std::erase(name, '\0');
    return name;
});

// Every file that cannot serve fails creation with the database's error, and nothing is logged.
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
