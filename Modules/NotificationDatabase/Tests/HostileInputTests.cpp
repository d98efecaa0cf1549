// Hostile values and a hostile environment: texts that look like SQL, carry NUL bytes or are not
// UTF-8, huge bodies, files that are no database, a directory or a read-only file
// in the database's place, a column dropped and rows written by another program. Every value
// comes back byte for byte; every failure gives the operation's neutral result and its message,
// leaves the stored data as it was, and the store works again once the file is repaired.

#include <NotificationDatabase/DatabaseError.hpp>

#include "TestSupport.hpp"

#include <gtest/gtest.h>

namespace notificationdb {
namespace {

using namespace testing;
using namespace std::string_literals;
using Lines = std::vector<std::string>;

class HostileInput : public ::testing::Test, protected StoreOnDisk {};

const Timestamp kCreated = at("2025-03-05 17:04:09.250");

NotificationModelInfo plain(std::string customer, std::string version, NotificationKind kind = NotificationKind::newApp,
                            Timestamp created = kCreated) {
    return {note({.customer = std::move(customer),
                  .version = std::move(version),
                  .kind = kind,
                  .appId = 7,
                  .created = created})};
}

// Texts that are SQL, quotes, NUL bytes, bytes that are not UTF-8 and a body of 1 MiB travel
// through save and fetch unchanged, and the tables hold exactly those bytes.
TEST_F(HostileInput, HostileTextsAndHugeBodiesRoundTripByteForByte) {
    const std::string injection = "'; DROP TABLE notification; --";
    const std::string quotes = "O'Brien said \"hi\" `x` [y] 'z''";
    const std::string withNul = "before\0after"s;
    const std::string notUtf8 = "\xff\xfe\xc3\x28\xed\xa0\x80\x80 end";
    std::string huge(1024 * 1024, 'x');
    for (std::size_t i = 0; i < huge.size(); i += 997) huge[i] = static_cast<char>(i % 256);  // NULs and high bytes
    Bytes everyByte;
    for (int b = 0; b < 256; ++b) everyByte.push_back(static_cast<std::uint8_t>(b));
    const NotificationModel notification(std::nullopt, injection, kCreated, withNul + injection, quotes, notUtf8, huge,
                                         withNul, true, -1, NotificationStatus::shown, NotificationKind::ai);
    NotificationButton button(std::nullopt, injection, withNul + notUtf8, false, std::nullopt,
                              UserActionKind::refreshInstalledApps, everyByte);
    store->save({notification, button});

    const auto stored = store->fetchNotifications(std::nullopt);
    ASSERT_EQ(stored.size(), 1U);
    EXPECT_EQ(fieldsOf(stored[0].notification), fieldsOf(notification));
    ASSERT_TRUE(stored[0].actionButton.has_value());
    button.notificationId = stored[0].notification.id();
    EXPECT_EQ(fieldsOf(*stored[0].actionButton), fieldsOf(button));

    // The tables hold the bytes themselves, NULs included.
    EXPECT_EQ(raw.scalar("SELECT hex(bannerUrl) || ' ' || typeof(bannerUrl) FROM notification WHERE appId = -1"),
              "6265666F7265006166746572 text");
    EXPECT_EQ(raw.scalar("SELECT length(CAST(body AS BLOB)) FROM notification WHERE appId = -1"),
              std::to_string(huge.size()));
    EXPECT_EQ(raw.scalar("SELECT length(userAction) || ' ' || typeof(userAction) FROM notificationButton"), "256 blob");

    // Queries compare the whole value: bytes after a NUL count, SQL stays a value.
    EXPECT_TRUE(store->containsVantro(withNul + injection));
    EXPECT_FALSE(store->containsVantro("before"));
    EXPECT_TRUE(store->containsNotification(NotificationKind::ai, injection, -1, withNul + injection));
    EXPECT_FALSE(store->containsNotification(NotificationKind::ai, injection.substr(0, 1), -1, std::nullopt));
    EXPECT_EQ(log.messages(), Lines{});
}

// A file that is no database, a directory in the file's place: creation fails with the
// database error, logs nothing and leaves what is there untouched.
TEST_F(HostileInput, CreationFailsOnAFileThatIsNoDatabaseOrADirectory) {
    const auto path = directory / "other.sqlite";
    std::string garbage = "This is not an SQLite database, just text that some other program wrote.\n";
    while (garbage.size() < 8192) garbage += garbage;
    writeFile(path, garbage);
    const auto open = [&] {
        return caught<DatabaseError>(
            [&] { NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, Configuration{})); });
    };
    EXPECT_EQ(open().value().resultCode(), SQLITE_NOTADB);
    EXPECT_EQ(readFile(path), garbage);

    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_EQ(open().value().resultCode(), SQLITE_CANTOPEN);
    EXPECT_TRUE(std::filesystem::is_empty(path));
    EXPECT_EQ(log.messages(), Lines{});
}

// A read-only file. File permissions do not bind root, so when the suite runs as root the store
// is opened by a child process that first drops to the unprivileged uid 65534.
//   - In a directory the user cannot write, not even the journal files can be made: creation
//     fails with SQLite's read-only error.
//   - In a writable directory SQLite opens the file for reading only: the store reads, its save
//     fails with the read-only message, and the file keeps its contents.
TEST_F(HostileInput, ReadOnlyFileRefusesWritesAndKeepsItsContents) {
    const auto path = directory / "readonly.sqlite";
    NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, Configuration{}))->save(plain("customer", "1.0"));
    const std::string before = readFile(path);
    namespace fs = std::filesystem;
    fs::permissions(path, fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
    fs::permissions(directory.path(), fs::perms::owner_read | fs::perms::owner_exec | fs::perms::group_read |
                                          fs::perms::group_exec | fs::perms::others_read | fs::perms::others_exec);
    const auto run = [&](const std::string& mode) {
        ChildProcess child(childProgram("rel_open"), {path.string(), mode, "65534"});
        auto lines = child.readAll();
        lines.push_back("exit " + std::to_string(child.wait()));
        return lines;
    };

    const auto lines = run("writer");
    if (lines.front() == "cannot drop privileges") GTEST_SKIP() << "running as root without the right to change user";
    if (lines.front() == "unreachable") GTEST_SKIP() << "the temporary directory is out of reach for uid 65534";
    const Lines refused{"open-failed 8 SQLITE_READONLY_DIRECTORY", "done", "exit 0"};
    EXPECT_EQ(lines, refused);
    EXPECT_EQ(run("reader"), refused);
    EXPECT_EQ(readFile(path), before);

    fs::permissions(directory.path(), fs::perms::all);
    EXPECT_EQ(run("writer"), (Lines{"opened", "count 1", "listed 1", "count 1",
                                    "log Unable to save wrapped notification: SQLite error 8 (SQLITE_READONLY): "
                                    "attempt to write a readonly database",
                                    "done", "exit 0"}));
    EXPECT_EQ(run("reader"), (Lines{"opened", "count 1", "listed 1", "done", "exit 0"}));
    EXPECT_EQ(readFile(path), before);
}

// Another program drops a required column: every read of records fails with its message, while
// operations that do not read records keep working; saves fail because their INSERT names the
// column. Once the column is back the same store works again.
TEST_F(HostileInput, ColumnDroppedByAnotherProgram) {
    store->save(plain("customer", "1.0"));
    const auto id = *store->fetchNotifications(std::nullopt).at(0).notification.id();
    raw.execute("ALTER TABLE notification DROP COLUMN version");
    EXPECT_EQ(store->fetchNotifications(NotificationIDs{id}), std::vector<NotificationModelInfo>{});
    EXPECT_EQ(store->notificationsCount(), 1);
    EXPECT_TRUE(store->containsVantro("1.0"));
    EXPECT_FALSE(store->containsNotification(NotificationKind::newApp, "customer", std::nullopt, std::nullopt));
    store->deleteAllNotifications(NotificationKind::newApp);
    store->updateStatus({id}, NotificationStatus::read);
    EXPECT_EQ(raw.scalar("SELECT status FROM notification"), "2");
    store->save(plain("other customer", "3.0", NotificationKind::default_));
    EXPECT_EQ(store->notificationsCount(), 1);
    const std::string unreadable = "could not read column \"version\" of \"notification\": column is missing";
    EXPECT_EQ(log.messages(), (Lines{"Unable to read wrapped notifications: " + unreadable,
                                     "Unable to delete all notification with kind 1: " + unreadable,
                                     "Unable to save wrapped notification: SQLite error 1 (SQLITE_ERROR): table "
                                     "notification has no column named version"}));
    log.clear();

    raw.execute("ALTER TABLE notification ADD COLUMN version TEXT NOT NULL DEFAULT '1.0'");
    const int noticesBefore = notices.count();
    store->save(plain("customer", "4.0", NotificationKind::newApp, kCreated + std::chrono::hours(1)));
    const auto stored = store->fetchNotifications(std::nullopt);
    ASSERT_EQ(stored.size(), 2U);
    EXPECT_EQ(stored[0].notification.version, "4.0");
    EXPECT_EQ(stored[1].notification.status, NotificationStatus::read);
    EXPECT_EQ(notices.count(), noticesBefore + 1);
    EXPECT_EQ(log.messages(), Lines{});
}

// Rows that another program wrote with values the records cannot take: an enumeration just out
// of range or a date that is no date. Each read that meets such a row fails as a whole with its
// message and gives no row at all; reads that do not meet it, counts and updates keep working;
// once the row is repaired everything reads again.
TEST_F(HostileInput, RowsWithValuesOutOfRange) {
    // What no longer reads: the notification row itself, only its button, or, for a kind out of
    // range, nothing that a query by kind newApp would find.
    enum class Unreadable { notification, button, neither };
    const std::string notADate = "could not read column \"createdDate\" of \"notification\": value is not a date";
    const struct {
        std::string damage;  // run on the bad notification's row (or its button's)
        std::string repair;
        std::string error;
        Unreadable unreadable;
    } cases[] = {
        {"UPDATE notification SET status = 3", "UPDATE notification SET status = 1",
         "could not read column \"status\" of \"notification\": integer is no NotificationStatus",
         Unreadable::notification},
        {"UPDATE notification SET status = -1", "UPDATE notification SET status = 0",
         "could not read column \"status\" of \"notification\": integer is no NotificationStatus",
         Unreadable::notification},
        {"UPDATE notification SET createdDate = 'yesterday'", "UPDATE notification SET createdDate = '2025-01-01'",
         notADate, Unreadable::notification},
        {"UPDATE notification SET createdDate = '2025-01-01 00:00:00.25'",
         "UPDATE notification SET createdDate = 1741194249.25", notADate, Unreadable::notification},
        {"UPDATE notification SET notificationKind = 5", "UPDATE notification SET notificationKind = 1",
         "could not read column \"notificationKind\" of \"notification\": integer is no NotificationKind",
         Unreadable::neither},
        {"UPDATE notificationButton SET actionKind = 7", "UPDATE notificationButton SET actionKind = NULL",
         "could not read column \"actionKind\" of \"notificationButton\": integer is no UserActionKind",
         Unreadable::button},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.damage);
        store->deleteAll();
        store->save(plain("good", "1.0", NotificationKind::appUpdate));
        store->save({plain("bad", "1.0").notification, button()});
        const auto goodID = raw.scalar("SELECT id FROM notification WHERE customerId = 'good'");
        const auto badID = raw.scalar("SELECT id FROM notification WHERE customerId = 'bad'");
        const auto where =
            (testCase.unreadable == Unreadable::button ? " WHERE notificationId = " : " WHERE id = ") + badID;
        raw.execute(testCase.damage + where);
        log.clear();

        EXPECT_EQ(store->fetchNotifications(std::nullopt), std::vector<NotificationModelInfo>{});
        const auto good = store->fetchNotifications(NotificationIDs{std::stoll(goodID)});
        ASSERT_EQ(good.size(), 1U);
        EXPECT_EQ(good[0].notification.customerId(), "good");
        EXPECT_EQ(store->notificationsCount(), 2);
        // The existence questions log nothing; a row they cannot read answers "not stored".
        EXPECT_EQ(store->containsNotification(NotificationKind::newApp, "bad", std::nullopt, "1.0"),
                  testCase.unreadable == Unreadable::button);
        EXPECT_TRUE(store->containsNotification(NotificationKind::appUpdate, "good", std::nullopt, "1.0"));
        // Its content key finds the bad row: unreadable, the save cannot tell whether it is a
        // duplicate and fails; readable, it is a duplicate.
        if (testCase.unreadable != Unreadable::neither) store->save(plain("bad", "1.0"));
        store->deleteAllNotifications(NotificationKind::newApp);
        EXPECT_EQ(store->notificationsCount(), 2);
        store->updateStatus({std::stoll(goodID)}, NotificationStatus::read);
        EXPECT_EQ(raw.scalar("SELECT status FROM notification WHERE id = " + goodID), "2");

        Lines expected{"Unable to read wrapped notifications: " + testCase.error};
        if (testCase.unreadable == Unreadable::notification) {
            expected.push_back("Unable to save wrapped notification: " + testCase.error);
        }
        if (testCase.unreadable != Unreadable::neither) {
            expected.push_back("Unable to delete all notification with kind 1: " + testCase.error);
        }
        EXPECT_EQ(log.messages(), expected);
        log.clear();

        raw.execute(testCase.repair + where);
        EXPECT_EQ(store->fetchNotifications(std::nullopt).size(), 2U);
        EXPECT_TRUE(store->containsNotification(NotificationKind::newApp, "bad", std::nullopt, "1.0"));
        EXPECT_EQ(log.messages(), Lines{});
    }
}

}  // namespace
}  // namespace notificationdb
