// Hostile values and a hostile environment: texts that look like SQL, carry NUL bytes or are not
// UTF-8, huge bodies, files that are no database, a directory or a read-only file in the
// database's place, tables altered or dropped and rows written by another program. Every value
// comes back byte for byte; every failure gives the operation's neutral result and its message,
// leaves the stored data as it was, and the store works again once the file is repaired.

#include <NotificationDatabase/Database/DatabaseError.hpp>
#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/NotificationDatabaseConfig.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace notificationdb {
namespace {

using namespace std::string_literals;
using testing::ChildProcess;
using testing::childProgram;
using testing::LogCapture;
using testing::RawDatabase;
using testing::TemporaryDirectory;

Configuration writerConfiguration() {
    Configuration configuration;
    configuration.busyMode = BusyMode::timeout(2.0);
    return configuration;
}

// Counts the change notices instead of running them; restores the main queue when it goes.
class CountingNotices {
public:
    CountingNotices() {
        MainQueue::main().setScheduler([this](auto, auto) { ++count_; });
    }
    ~CountingNotices() { MainQueue::main().setScheduler({}); }
    CountingNotices(const CountingNotices&) = delete;
    CountingNotices& operator=(const CountingNotices&) = delete;

    int count() const { return count_.load(); }

private:
    std::atomic<int> count_{0};
};

// A store on a fresh file in a temporary directory, with log capture and counted notices.
class HostileInput : public ::testing::Test {
protected:
    std::shared_ptr<NotificationDatabaseImpl> openStore() {
        return NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, writerConfiguration()));
    }

    TemporaryDirectory directory;
    std::filesystem::path path = directory / "NotificationDatabase.sqlite";
    LogCapture capture;
    CountingNotices notices;
};

const Timestamp kCreated = *parseDateText("2025-03-05 17:04:09.250");

NotificationModelInfo plainNotification(std::string customer, std::string version,
                                        NotificationKind kind = NotificationKind::newApp,
                                        Timestamp created = kCreated) {
    return {NotificationModel(std::nullopt, std::move(customer), created, std::move(version), "tag", "title", "body",
                              std::nullopt, false, 7, NotificationStatus::new_, kind)};
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

void expectSameNotification(const NotificationModel& actual, const NotificationModel& expected) {
    EXPECT_EQ(actual.customerId(), expected.customerId());
    EXPECT_EQ(actual.createdDate, expected.createdDate);
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

// Texts that are SQL, quotes, NUL bytes, bytes that are not UTF-8 and a body of 1 MiB travel
// through save and fetch unchanged, and the tables hold exactly those bytes.
TEST_F(HostileInput, HostileTextsAndHugeBodiesRoundTripByteForByte) {
    auto store = openStore();
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
    const NotificationButton button(std::nullopt, injection, withNul + notUtf8, false, std::nullopt,
                                    UserActionKind::refreshInstalledApps, everyByte);
    store->save({notification, button});

    // A second notification whose texts are huge throughout.
    const NotificationModel big(std::nullopt, huge, kCreated - std::chrono::hours(1), huge, huge, huge, huge, huge,
                                false, std::nullopt, NotificationStatus::read, NotificationKind::default_);
    store->save({big});

    const auto stored = store->fetchNotifications(std::nullopt);
    ASSERT_EQ(stored.size(), 2U);
    expectSameNotification(stored[0].notification, notification);
    ASSERT_TRUE(stored[0].actionButton.has_value());
    EXPECT_EQ(stored[0].actionButton->buttonId, button.buttonId);
    EXPECT_EQ(stored[0].actionButton->title, button.title);
    EXPECT_EQ(stored[0].actionButton->userAction, everyByte);
    EXPECT_EQ(stored[0].actionButton->actionKind, UserActionKind::refreshInstalledApps);
    expectSameNotification(stored[1].notification, big);
    EXPECT_FALSE(stored[1].actionButton.has_value());

    // The tables hold the bytes themselves: lengths counted as bytes, NULs included.
    RawDatabase raw(path);
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM sqlite_master WHERE type = 'table' AND name IN ('notification', "
                         "'notificationButton')"),
              "2");
    const auto lengths = raw.query(
        "SELECT length(CAST(customerId AS BLOB)), length(CAST(version AS BLOB)), length(CAST(analyticsTag AS BLOB)), "
        "length(CAST(title AS BLOB)), length(CAST(body AS BLOB)), length(CAST(bannerUrl AS BLOB)), typeof(body) "
        "FROM notification ORDER BY createdDate DESC");
    ASSERT_EQ(lengths.size(), 2U);
    EXPECT_EQ(lengths[0], (std::vector<std::string>{
                              std::to_string(injection.size()), std::to_string(withNul.size() + injection.size()),
                              std::to_string(quotes.size()), std::to_string(notUtf8.size()),
                              std::to_string(huge.size()), std::to_string(withNul.size()), "text"}));
    const std::string hugeSize = std::to_string(huge.size());
    EXPECT_EQ(lengths[1],
              (std::vector<std::string>{hugeSize, hugeSize, hugeSize, hugeSize, hugeSize, hugeSize, "text"}));
    EXPECT_EQ(raw.scalar("SELECT hex(bannerUrl) FROM notification WHERE appId = -1"), "6265666F7265006166746572");
    EXPECT_EQ(raw.scalar("SELECT length(userAction) || ' ' || typeof(userAction) FROM notificationButton"), "256 blob");

    // Queries compare the whole value: bytes after a NUL count, SQL stays a value.
    EXPECT_TRUE(store->containsVantro(withNul + injection));
    EXPECT_FALSE(store->containsVantro("before"));
    EXPECT_TRUE(store->containsNotification(NotificationKind::ai, injection, -1, withNul + injection));
    EXPECT_FALSE(store->containsNotification(NotificationKind::ai, injection.substr(0, 1), -1, std::nullopt));
    EXPECT_EQ(capture.messages(), std::vector<std::string>{});
}

// Content keys that differ only after a NUL byte, or only in bytes that are not UTF-8, are
// different keys; identical hostile keys are the same key.
TEST_F(HostileInput, KeysDifferingOnlyInHiddenBytesAreDistinct) {
    auto store = openStore();
    store->save(plainNotification("customer\0a"s, "1.0\0x"s));
    store->save(plainNotification("customer\0b"s, "1.0\0x"s));
    store->save(plainNotification("customer\0a"s, "1.0\0y"s));
    store->save(plainNotification("customer\xff", "1.0"));
    store->save(plainNotification("customer\xfe", "1.0"));
    EXPECT_EQ(store->notificationsCount(), 5);

    store->save(plainNotification("customer\0a"s, "1.0\0x"s));  // a duplicate of the first
    store->save(plainNotification("customer\xff", "1.0"));      // and of the fourth
    EXPECT_EQ(store->notificationsCount(), 5);
    EXPECT_TRUE(store->containsNotification(NotificationKind::newApp, "customer\0b"s, std::nullopt, std::nullopt));
    EXPECT_FALSE(store->containsNotification(NotificationKind::newApp, "customer", std::nullopt, std::nullopt));
    EXPECT_EQ(notices.count(), 5);
    EXPECT_EQ(capture.messages(), std::vector<std::string>{});
}

// Instants near both ends of what a time point holds, before 1970 and between two
// milliseconds: each is stored and reads back floored to its millisecond, and none keeps the
// list from being read.
TEST_F(HostileInput, ExtremeDatesRoundTripToTheMillisecond) {
    auto store = openStore();
    using std::chrono::milliseconds;
    using std::chrono::system_clock;
    const Timestamp earliest = std::chrono::ceil<milliseconds>(system_clock::time_point::min());
    const std::vector<Timestamp> dates{
        earliest,
        system_clock::time_point::max(),
        system_clock::time_point{},
        system_clock::time_point{} - std::chrono::nanoseconds(1),
        kCreated + std::chrono::microseconds(999),
        earliest + std::chrono::microseconds(1500),
        system_clock::time_point::max() - std::chrono::hours(24),
    };
    for (std::size_t i = 0; i < dates.size(); ++i) {
        store->save(plainNotification("c", "date " + std::to_string(i), NotificationKind::newApp, dates[i]));
    }
    const auto stored = store->fetchNotifications(std::nullopt);
    ASSERT_EQ(stored.size(), dates.size());
    for (const auto& info : stored) {
        const auto index = static_cast<std::size_t>(std::stoi(info.notification.version.substr(5)));
        EXPECT_EQ(info.notification.createdDate, std::chrono::floor<milliseconds>(dates[index]))
            << info.notification.version;
    }
    RawDatabase raw(path);
    EXPECT_EQ(raw.scalar("SELECT createdDate FROM notification WHERE version = 'date 0'"), "1677-09-21 00:12:43.146");
    EXPECT_EQ(raw.scalar("SELECT createdDate FROM notification WHERE version = 'date 1'"), "2262-04-11 23:47:16.854");
    EXPECT_EQ(raw.scalar("SELECT createdDate FROM notification WHERE version = 'date 3'"), "1969-12-31 23:59:59.999");
    EXPECT_EQ(raw.scalar("SELECT createdDate FROM notification WHERE version = 'date 4'"), "2025-03-05 17:04:09.250");
    // Newest first, whatever the century.
    EXPECT_EQ(stored.front().notification.version, "date 1");
    EXPECT_EQ(stored.back().notification.version, "date 0");
    EXPECT_EQ(capture.messages(), std::vector<std::string>{});
}

// A file that is no database, a directory in the file's place: creation fails with the
// database error and leaves what is there untouched.
TEST_F(HostileInput, CreationFailsOnAFileThatIsNoDatabaseOrADirectory) {
    std::string garbage = "This is not an SQLite database, just text that some other program wrote.\n";
    while (garbage.size() < 8192) garbage += garbage;
    std::ofstream(path, std::ios::binary) << garbage;
    try {
        (void)openStore();
        ADD_FAILURE() << "a store opened on a file that is no database";
    } catch (const DatabaseError& error) {
        EXPECT_EQ(error.resultCode(), SQLITE_NOTADB) << error.what();
    }
    EXPECT_EQ(readFile(path), garbage);

    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    try {
        (void)openStore();
        ADD_FAILURE() << "a store opened on a directory";
    } catch (const DatabaseError& error) {
        EXPECT_EQ(error.resultCode(), SQLITE_CANTOPEN) << error.what();
    }
    EXPECT_TRUE(std::filesystem::is_directory(path));
    EXPECT_TRUE(std::filesystem::is_empty(path));
    // Neither attempt logged anything: creation reports to its caller only.
    EXPECT_EQ(capture.messages(), std::vector<std::string>{});
}

// A read-only file. File permissions do not bind root, so when the suite runs as root the store
// is opened by a child process that first drops to the unprivileged uid 65534.
//   - In a directory the user cannot write, not even the journal files can be made: creation
//     fails with SQLite's read-only error.
//   - In a writable directory SQLite opens the file for reading only: the store reads, its save
//     fails with the read-only message, and the file keeps its contents.
TEST_F(HostileInput, ReadOnlyFileRefusesWritesAndKeepsItsContents) {
    {
        auto store = openStore();
        store->save(plainNotification("customer", "1.0"));
    }
    const std::string before = readFile(path);
    std::filesystem::permissions(path, std::filesystem::perms::owner_read | std::filesystem::perms::group_read |
                                           std::filesystem::perms::others_read);
    std::filesystem::permissions(directory.path(),
                                 std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec |
                                     std::filesystem::perms::group_read | std::filesystem::perms::group_exec |
                                     std::filesystem::perms::others_read | std::filesystem::perms::others_exec);
    const std::string unprivileged = "65534";
    auto run = [&](const std::string& mode) {
        ChildProcess child(childProgram("rel_open"), {path.string(), mode, unprivileged});
        std::vector<std::string> lines;
        while (auto line = child.readLine()) lines.push_back(*line);
        lines.push_back("exit " + std::to_string(child.wait()));
        return lines;
    };

    auto lines = run("writer");
    if (lines.front() == "cannot drop privileges") {
        GTEST_SKIP() << "running as root without the right to change to an unprivileged user";
    }
    if (lines.front() == "unreachable") {
        GTEST_SKIP() << "the temporary directory is out of reach for uid " << unprivileged;
    }
    EXPECT_EQ(lines, (std::vector<std::string>{"open-failed 8 SQLITE_READONLY_DIRECTORY", "done", "exit 0"}));
    EXPECT_EQ(run("reader"), (std::vector<std::string>{"open-failed 8 SQLITE_READONLY_DIRECTORY", "done", "exit 0"}));
    EXPECT_EQ(readFile(path), before);

    std::filesystem::permissions(directory.path(), std::filesystem::perms::all);
    EXPECT_EQ(run("writer"),
              (std::vector<std::string>{"opened", "count 1", "listed 1", "count 1",
                                        "log Unable to save wrapped notification: SQLite error 8 (SQLITE_READONLY): "
                                        "attempt to write a readonly database",
                                        "done", "exit 0"}));
    EXPECT_EQ(run("reader"), (std::vector<std::string>{"opened", "count 1", "listed 1", "done", "exit 0"}));
    EXPECT_EQ(readFile(path), before);
}

// Another program drops a column. A missing optional column reads as absent; a missing required
// one fails every read of records with its message, while operations that do not read records
// keep working; saves fail because their INSERT names the column. Once the column is back the
// same store works again.
TEST_F(HostileInput, ColumnsDroppedByAnotherProgram) {
    auto store = openStore();
    store->save(plainNotification("customer", "1.0"));
    const auto id = *store->fetchNotifications(std::nullopt).at(0).notification.id();
    RawDatabase raw(path);

    raw.execute("ALTER TABLE notification DROP COLUMN title");
    auto stored = store->fetchNotifications(std::nullopt);
    ASSERT_EQ(stored.size(), 1U);
    EXPECT_EQ(stored[0].notification.title, std::nullopt);
    EXPECT_EQ(stored[0].notification.body, "body");
    store->save(plainNotification("customer", "2.0"));
    EXPECT_EQ(capture.messages(), std::vector<std::string>{"Unable to save wrapped notification: SQLite error 1 "
                                                           "(SQLITE_ERROR): table notification has no column named "
                                                           "title"});
    EXPECT_EQ(store->notificationsCount(), 1);
    capture.clear();
    raw.execute("ALTER TABLE notification ADD COLUMN title TEXT");

    raw.execute("ALTER TABLE notification DROP COLUMN version");
    const std::string unreadable = "could not read column \"version\" of \"notification\": column is missing";
    EXPECT_EQ(store->fetchNotifications(std::nullopt), std::vector<NotificationModelInfo>{});
    EXPECT_EQ(store->fetchNotifications(NotificationIDs{id}), std::vector<NotificationModelInfo>{});
    EXPECT_EQ(store->notificationsCount(), 1);
    EXPECT_TRUE(store->containsVantro("1.0"));
    EXPECT_FALSE(store->containsNotification(NotificationKind::newApp, "customer", std::nullopt, std::nullopt));
    store->deleteAllNotifications(NotificationKind::newApp);
    store->updateStatus({id}, NotificationStatus::read);
    EXPECT_EQ(raw.scalar("SELECT status FROM notification"), "2");
    store->save(plainNotification("other customer", "3.0", NotificationKind::default_));
    EXPECT_EQ(store->notificationsCount(), 1);
    EXPECT_EQ(capture.messages(),
              (std::vector<std::string>{
                  "Unable to read wrapped notifications: " + unreadable,
                  "Unable to read wrapped notifications: " + unreadable,
                  "Unable to delete all notification with kind 1: " + unreadable,
                  "Unable to save wrapped notification: SQLite error 1 (SQLITE_ERROR): table notification has no "
                  "column named version",
              }));
    capture.clear();

    raw.execute("ALTER TABLE notification ADD COLUMN version TEXT NOT NULL DEFAULT '1.0'");
    const int noticesBefore = notices.count();
    store->save(plainNotification("customer", "4.0", NotificationKind::newApp, kCreated + std::chrono::hours(1)));
    stored = store->fetchNotifications(std::nullopt);
    ASSERT_EQ(stored.size(), 2U);
    EXPECT_EQ(stored[0].notification.version, "4.0");
    EXPECT_EQ(stored[1].notification.version, "1.0");
    EXPECT_EQ(stored[1].notification.status, NotificationStatus::read);
    EXPECT_EQ(notices.count(), noticesBefore + 1);
    EXPECT_EQ(capture.messages(), std::vector<std::string>{});
}

// Another program drops the table "notification" under an open store. Each operation gives its
// neutral result and its message (or none, where it drops failures silently). A new store on
// the file creates the table again, and the first store works on it.
TEST_F(HostileInput, TableDroppedByAnotherProgram) {
    auto store = openStore();
    store->save({plainNotification("customer", "1.0").notification,
                 NotificationButton(std::nullopt, "b", "Open", true, std::nullopt, UserActionKind::openApp, Bytes{})});
    const auto stored = store->fetchNotifications(std::nullopt);
    ASSERT_EQ(stored.size(), 1U);
    const auto id = *stored[0].notification.id();
    RawDatabase raw(path);
    raw.execute("DROP TABLE notification");
    const int noticesBefore = notices.count();

    const std::string missing = "SQLite error 1 (SQLITE_ERROR): no such table: notification";
    EXPECT_EQ(store->notificationsCount(), 0);
    EXPECT_EQ(store->fetchNotifications(std::nullopt), std::vector<NotificationModelInfo>{});
    store->save(plainNotification("customer", "2.0"));
    EXPECT_TRUE(store->containsVantro("1.0"));
    EXPECT_FALSE(store->containsNotification(NotificationKind::newApp, "customer", std::nullopt, std::nullopt));
    store->updateStatus({id, id + 1}, NotificationStatus::read);
    store->deleteAllNotifications(NotificationKind::appUpdate);
    store->updateButtonVisibility({id}, false);
    store->deleteNotifications({stored[0]});  // both DELETEs fail, silently
    EXPECT_EQ(capture.messages(), (std::vector<std::string>{
                                      "Unable to fetch notifications count: " + missing,
                                      "Unable to read wrapped notifications: " + missing,
                                      "Unable to save wrapped notification: " + missing,
                                      "Unable to mark as read notification IDs: [" + std::to_string(id) + ", " +
                                          std::to_string(id + 1) + "]: " + missing,
                                      "Unable to delete all notification with kind 2: " + missing,
                                  }));
    // The visibility change needs only "notificationButton" and went through; with foreign keys
    // enforced SQLite refuses to delete from it while the table it refers to is missing, so the
    // button row stays.
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) || ' ' || visible FROM notificationButton"), "1 0");
    EXPECT_EQ(notices.count(), noticesBefore);
    capture.clear();

    (void)openStore();
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM sqlite_master WHERE name = 'notification'"), "1");
    store->save(plainNotification("customer", "3.0"));
    const auto again = store->fetchNotifications(std::nullopt);
    ASSERT_EQ(again.size(), 1U);
    EXPECT_EQ(again[0].notification.version, "3.0");
    EXPECT_EQ(store->notificationsCount(), 1);
    EXPECT_EQ(notices.count(), noticesBefore + 1);
    EXPECT_EQ(capture.messages(), std::vector<std::string>{});
}

// Rows that another program wrote with values the records cannot take: an enumeration out of
// range or a date that is no date. Each read that meets such a row fails as a whole with its
// message; reads that do not meet it, counts and updates keep working; once the row is repaired
// everything reads again.
TEST_F(HostileInput, RowsWithValuesOutOfRange) {
    enum class Unreadable { notification, button, neither };
    struct Case {
        std::string damage;  // run on the bad notification's row (or its button's)
        std::string repair;
        std::string error;
        // What no longer reads: the notification row itself, only its button, or, for a kind
        // out of range, nothing that a query by kind newApp would find.
        Unreadable unreadable;
    };
    const std::vector<Case> cases{
        {"UPDATE notification SET status = 3", "UPDATE notification SET status = 1",
         "could not read column \"status\" of \"notification\": integer is no NotificationStatus",
         Unreadable::notification},
        {"UPDATE notification SET status = -1", "UPDATE notification SET status = 0",
         "could not read column \"status\" of \"notification\": integer is no NotificationStatus",
         Unreadable::notification},
        {"UPDATE notification SET createdDate = 'yesterday'", "UPDATE notification SET createdDate = '2025-01-01'",
         "could not read column \"createdDate\" of \"notification\": value is not a date", Unreadable::notification},
        {"UPDATE notification SET createdDate = '1600-01-01 00:00:00.000'",
         "UPDATE notification SET createdDate = 1741194249.25",
         "could not read column \"createdDate\" of \"notification\": value is not a date", Unreadable::notification},
        {"UPDATE notification SET notificationKind = 7", "UPDATE notification SET notificationKind = 1",
         "could not read column \"notificationKind\" of \"notification\": integer is no NotificationKind",
         Unreadable::neither},
        {"UPDATE notificationButton SET actionKind = 9", "UPDATE notificationButton SET actionKind = NULL",
         "could not read column \"actionKind\" of \"notificationButton\": integer is no UserActionKind",
         Unreadable::button},
    };
    auto store = openStore();
    RawDatabase raw(path);
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.damage);
        store->deleteAll();
        store->save(plainNotification("good", "1.0", NotificationKind::appUpdate));
        store->save(
            {plainNotification("bad", "1.0").notification,
             NotificationButton(std::nullopt, "b", "Open", true, std::nullopt, UserActionKind::openApp, Bytes{1})});
        const auto goodID = raw.scalar("SELECT id FROM notification WHERE customerId = 'good'");
        const auto badID = raw.scalar("SELECT id FROM notification WHERE customerId = 'bad'");
        const auto where =
            testCase.unreadable == Unreadable::button ? " WHERE notificationId = " + badID : " WHERE id = " + badID;
        raw.execute(testCase.damage + where);
        capture.clear();

        EXPECT_EQ(store->fetchNotifications(std::nullopt), std::vector<NotificationModelInfo>{});
        const auto good = store->fetchNotifications(NotificationIDs{std::stoll(goodID)});
        ASSERT_EQ(good.size(), 1U);
        EXPECT_EQ(good[0].notification.customerId(), "good");
        EXPECT_EQ(store->notificationsCount(), 2);
        // The existence questions log nothing; a row they cannot read answers "not stored".
        EXPECT_EQ(store->containsNotification(NotificationKind::newApp, "bad", std::nullopt, "1.0"),
                  testCase.unreadable == Unreadable::button);
        EXPECT_TRUE(store->containsNotification(NotificationKind::appUpdate, "good", std::nullopt, "1.0"));
        if (testCase.unreadable != Unreadable::neither) {
            // Its content key finds the bad row: unreadable, the save cannot tell whether it is a
            // duplicate and fails; readable, it is a duplicate.
            store->save(plainNotification("bad", "1.0"));
        }
        store->deleteAllNotifications(NotificationKind::newApp);
        EXPECT_EQ(store->notificationsCount(), 2);
        store->updateStatus({std::stoll(goodID)}, NotificationStatus::read);
        EXPECT_EQ(raw.scalar("SELECT status FROM notification WHERE id = " + goodID), "2");

        std::vector<std::string> expected{"Unable to read wrapped notifications: " + testCase.error};
        if (testCase.unreadable == Unreadable::notification) {
            expected.push_back("Unable to save wrapped notification: " + testCase.error);
        }
        if (testCase.unreadable != Unreadable::neither) {
            expected.push_back("Unable to delete all notification with kind 1: " + testCase.error);
        }
        EXPECT_EQ(capture.messages(), expected);
        capture.clear();

        raw.execute(testCase.repair + where);
        EXPECT_EQ(store->fetchNotifications(std::nullopt).size(), 2U);
        EXPECT_TRUE(store->containsNotification(NotificationKind::newApp, "bad", std::nullopt, "1.0"));
        EXPECT_EQ(capture.messages(), std::vector<std::string>{});
    }
}

}  // namespace
}  // namespace notificationdb
