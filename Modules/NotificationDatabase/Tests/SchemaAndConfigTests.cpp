// Where the database file lives, the ready-made configurations, and the schema as any other
// SQLite client sees it.

#include <NotificationDatabase/Database/DatabaseError.hpp>
#include <NotificationDatabase/Database/DatabasePool.hpp>
#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/NotificationDatabaseConfig.hpp>
#include <NotificationDatabase/NotificationDatabaseConfigurator.hpp>
#include <NotificationDatabase/Platform/FileManager.hpp>

#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

namespace notificationdb {
namespace {

namespace fs = std::filesystem;
using testing::caught;
using testing::ChildProcess;
using testing::childProgram;
using testing::LogCapture;
using testing::RawDatabase;
using testing::ScopedEnvironment;
using testing::TemporaryDirectory;
using Rows = std::vector<std::vector<std::string>>;

Configuration writable() {
    Configuration configuration;
    configuration.busyMode = BusyMode::timeout(2.0);
    return configuration;
}

// A user whose application support directory is empty.
class UserTest : public ::testing::Test {
protected:
    TemporaryDirectory home;
    const fs::path dataHome = home / "data";
    ScopedEnvironment homeVariable{"HOME", home.path().string()};
    ScopedEnvironment dataHomeVariable{"XDG_DATA_HOME", dataHome.string()};
    const fs::path databases = dataHome / "Vantro" / "Default" / "Databases";
    const fs::path file = databases / "NotificationDatabase.sqlite";
    LogCapture capture;
};

// Delegates to the real file system and writes down every call.
class RecordingFileManager final : public FileManager {
public:
    fs::path applicationSupportDirectory() const override {
        record("applicationSupportDirectory");
        return system_.applicationSupportDirectory();
    }
    bool fileExists(const fs::path& path) const override {
        record("fileExists " + path.string());
        return system_.fileExists(path);
    }
    std::error_code createDirectory(const fs::path& path, bool withIntermediateDirectories) const override {
        record("createDirectory " + path.string() + (withIntermediateDirectories ? " intermediate" : ""));
        return system_.createDirectory(path, withIntermediateDirectories);
    }
    std::vector<std::string> calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    void record(std::string call) const {
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
    }
    SystemFileManager system_;
    mutable std::mutex mutex_;
    mutable std::vector<std::string> calls_;
};

struct InstalledFileManager {
    explicit InstalledFileManager(std::shared_ptr<FileManager> manager) { FileManager::setDefaultManager(manager); }
    ~InstalledFileManager() { FileManager::setDefaultManager(nullptr); }
};

using DatabaseConfigTest = UserTest;

TEST_F(DatabaseConfigTest, DatabaseURLIsTheNameBelowVantroDefaultDatabases) {
    EXPECT_EQ(NotificationDatabaseConfig::createDatabaseURl("NotificationDatabase.sqlite"), file);
    const fs::path odd = NotificationDatabaseConfig::createDatabaseURl("odd name..sqlite");
    EXPECT_EQ(std::vector<fs::path>(odd.begin(), odd.end()).back(), "odd name..sqlite");
    EXPECT_EQ(odd.parent_path(), databases);
    EXPECT_FALSE(fs::exists(dataHome)) << "computing the location must not create anything";

    ScopedEnvironment noDataHome("XDG_DATA_HOME", std::nullopt);
    EXPECT_EQ(NotificationDatabaseConfig::createDatabaseURl("x.sqlite"),
              home.path() / ".local" / "share" / "Vantro" / "Default" / "Databases" / "x.sqlite");
}

TEST_F(DatabaseConfigTest, ConstructionCreatesTheFolderOnlyWhenTheFileIsMissing) {
    NotificationDatabaseConfig config(file, writable());
    EXPECT_EQ(config.storageURL(), file);
    EXPECT_TRUE(fs::is_directory(databases));
    EXPECT_FALSE(fs::exists(file));

    auto recorder = std::make_shared<RecordingFileManager>();
    {
        InstalledFileManager installed(recorder);
        NotificationDatabaseConfig again(file, writable());
    }
    EXPECT_EQ(recorder->calls(), (std::vector<std::string>{"fileExists " + file.string(),
                                                           "createDirectory " + databases.string() + " intermediate"}));

    std::ofstream(file) << "";
    recorder = std::make_shared<RecordingFileManager>();
    {
        InstalledFileManager installed(recorder);
        NotificationDatabaseConfig present(file, writable());
    }
    EXPECT_EQ(recorder->calls(), std::vector<std::string>{"fileExists " + file.string()});
    EXPECT_TRUE(capture.entries().empty());
}

TEST_F(DatabaseConfigTest, AFileInTheWayOfTheFolderIsLoggedOnceAndTheStoreFailsLater) {
    fs::create_directories(databases.parent_path());
    std::ofstream(databases) << "not a directory";

    NotificationDatabaseConfig config(file, writable());
    EXPECT_EQ(config.storageURL(), file);
    auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].level, LogLevel::error);
    EXPECT_TRUE(entries[0].loggerPath.ends_with("notification-database-config")) << entries[0].loggerPath;
    EXPECT_TRUE(entries[0].message.starts_with("Unable to create database directory: ")) << entries[0].message;
    EXPECT_GT(entries[0].message.size(), std::string("Unable to create database directory: ").size());
    EXPECT_EQ(NotificationDatabaseConfig::logger()->path(), entries[0].loggerPath);
    EXPECT_TRUE(NotificationDatabaseConfig::logger()->destinations().empty());

    capture.clear();
    auto error = caught<DatabaseError>([&] { NotificationDatabaseImpl::create(config); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->resultCode(), SQLITE_CANTOPEN);
    EXPECT_TRUE(capture.entries().empty());
    EXPECT_TRUE(fs::is_regular_file(databases));
}

TEST_F(DatabaseConfigTest, ReadyMadeConfigurationsAsAFreshProcessBuildsThem) {
    ChildProcess child(childProgram("config_constants"), {});
    std::map<std::string, std::string> report;
    while (auto line = child.readLine()) {
        const auto space = line->find(' ');
        report[line->substr(0, space)] = space == std::string::npos ? "" : line->substr(space + 1);
    }
    ASSERT_EQ(child.wait(), 0);

    // First use of default creates the folders, not the file.
    EXPECT_EQ(report["afterDefault.directory"], "1");
    EXPECT_EQ(report["afterDefault.file"], "0");
    EXPECT_EQ(report["default.path"], file.string());
    EXPECT_EQ(report["readOnly.path"], file.string());
    EXPECT_EQ(report["default.readOnly"], "0");
    EXPECT_EQ(report["readOnly.readOnly"], "1");
    for (const std::string name : {"default", "readOnly"}) {
        EXPECT_EQ(report[name + ".busyKind"], std::to_string(static_cast<int>(BusyMode::Kind::timeout))) << name;
        EXPECT_EQ(report[name + ".busySeconds"], "2") << name;
    }
    EXPECT_EQ(report["default.persistentReaders"], "0");
    EXPECT_EQ(report["readOnly.persistentReaders"], "1");
    EXPECT_EQ(report["readOnlyStoreOnMissingFile"], std::to_string(SQLITE_CANTOPEN));
    EXPECT_EQ(report["defaultStore.file"], "1");
    EXPECT_EQ(report["defaultStore.count"], "0");
    EXPECT_EQ(report["readOnlyStore.count"], "0");
    EXPECT_EQ(report["logs"], "0");
}

class SchemaTest : public ::testing::Test {
protected:
    void configure(const Configuration& configuration = writable()) {
        DatabasePool pool(path, configuration);
        NotificationDatabaseConfigurator(NotificationDatabaseConfig(path, configuration)).configure(pool);
    }
    Rows master() const {
        return RawDatabase(path).query("SELECT type, name, tbl_name, sql FROM sqlite_master ORDER BY rowid");
    }

    TemporaryDirectory directory;
    const fs::path path = directory / "schema.sqlite";
};

TEST_F(SchemaTest, TablesIndexAndForeignKeyAsAnotherClientSeesThem) {
    configure();
    RawDatabase raw(path);
    // cid, name, declared type, notnull, default, pk
    EXPECT_EQ(raw.query("PRAGMA table_info(\"notification\")"),
              (Rows{{"0", "id", "INTEGER", "0", "NULL", "1"},
                    {"1", "customerId", "TEXT", "0", "NULL", "0"},
                    {"2", "createdDate", "DATETIME", "1", "NULL", "0"},
                    {"3", "version", "TEXT", "1", "NULL", "0"},
                    {"4", "analyticsTag", "TEXT", "1", "NULL", "0"},
                    {"5", "title", "TEXT", "0", "NULL", "0"},
                    {"6", "body", "TEXT", "0", "NULL", "0"},
                    {"7", "bannerUrl", "TEXT", "0", "NULL", "0"},
                    {"8", "isMarketing", "BOOLEAN", "1", "NULL", "0"},
                    {"9", "appId", "INTEGER", "0", "NULL", "0"},
                    {"10", "status", "INTEGER", "1", "NULL", "0"},
                    {"11", "notificationKind", "INTEGER", "1", "NULL", "0"}}));
    EXPECT_EQ(raw.query("PRAGMA table_info(\"notificationButton\")"),
              (Rows{{"0", "id", "INTEGER", "0", "NULL", "1"},
                    {"1", "buttonId", "TEXT", "0", "NULL", "0"},
                    {"2", "title", "TEXT", "0", "NULL", "0"},
                    {"3", "visible", "BOOLEAN", "1", "NULL", "0"},
                    {"4", "notificationId", "INTEGER", "0", "NULL", "0"},
                    {"5", "actionKind", "INTEGER", "0", "NULL", "0"},
                    {"6", "userAction", "BLOB", "0", "NULL", "0"}}));
    // Ordinary rowid tables in the main schema, neither WITHOUT ROWID nor STRICT.
    EXPECT_EQ(raw.query("SELECT name, type, wr, strict FROM pragma_table_list "
                        "WHERE schema = 'main' AND name LIKE 'notification%' ORDER BY name"),
              (Rows{{"notification", "table", "0", "0"}, {"notificationButton", "table", "0", "0"}}));
    // seq, name, unique, origin, partial
    EXPECT_EQ(raw.query("PRAGMA index_list(\"notificationButton\")"),
              (Rows{{"0", "notificationButton_on_notificationId", "0", "c", "0"}}));
    EXPECT_EQ(raw.query("PRAGMA index_info(\"notificationButton_on_notificationId\")"),
              (Rows{{"0", "4", "notificationId"}}));
    EXPECT_TRUE(raw.query("PRAGMA index_list(\"notification\")").empty());
    // id, seq, table, from, to, on_update, on_delete, match
    EXPECT_EQ(raw.query("PRAGMA foreign_key_list(\"notificationButton\")"),
              (Rows{{"0", "0", "notification", "notificationId", "id", "NO ACTION", "CASCADE", "NONE"}}));
    EXPECT_TRUE(raw.query("PRAGMA foreign_key_list(\"notification\")").empty());

    Rows objects = master();
    for (auto& row : objects) row.pop_back();
    EXPECT_EQ(objects, (Rows{{"table", "notification", "notification"},
                             {"table", "sqlite_sequence", "sqlite_sequence"},
                             {"table", "notificationButton", "notificationButton"},
                             {"index", "notificationButton_on_notificationId", "notificationButton"}}));
}

int traceStatement(unsigned /*type*/, void* context, void* /*statement*/, void* sql) {
    static_cast<std::vector<std::string>*>(context)->emplace_back(static_cast<const char*>(sql));
    return 0;
}

TEST_F(SchemaTest, LaterRunsExecuteNoCreateStatement) {
    configure();
    const Rows before = master();
    const std::string versionBefore = RawDatabase(path).scalar("PRAGMA schema_version");

    std::vector<std::string> executed;
    DatabasePool pool(path, writable());
    pool.write([&](Connection& connection) {
        sqlite3_trace_v2(connection.handle(), SQLITE_TRACE_STMT, &traceStatement, &executed);
    });
    NotificationDatabaseConfigurator(NotificationDatabaseConfig(path, writable())).configure(pool);
    ASSERT_FALSE(executed.empty()) << "the trace saw nothing, so it proves nothing";
    for (const auto& sql : executed) EXPECT_EQ(sql.find("CREATE"), std::string::npos) << sql;
    EXPECT_EQ(master(), before);
    EXPECT_EQ(RawDatabase(path).scalar("PRAGMA schema_version"), versionBefore);

    // A read-only pool can run the set-up once both tables exist.
    Configuration readOnly = writable();
    readOnly.readOnly = true;
    EXPECT_NO_THROW(configure(readOnly));
}

TEST_F(SchemaTest, ExistingTablesStayAsTheyAreAndMissingOnesAreAdded) {
    {
        RawDatabase raw(path);
        raw.execute(
            "CREATE TABLE \"Notification\" (id INTEGER PRIMARY KEY, version TEXT);"
            "INSERT INTO \"Notification\" VALUES (7, 'kept')");
    }
    const Rows before = master();

    Configuration readOnly = writable();
    readOnly.readOnly = true;
    auto refused = caught<DatabaseError>([&] { configure(readOnly); });
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->resultCode(), SQLITE_READONLY);
    EXPECT_EQ(master(), before);

    configure();
    Rows after = master();
    ASSERT_FALSE(after.empty());
    EXPECT_EQ(after[0], before[0]) << "the existing table (named in another case) was altered";
    std::vector<std::string> added;
    for (std::size_t i = 1; i < after.size(); ++i) added.push_back(after[i][1]);
    EXPECT_EQ(added, (std::vector<std::string>{"notificationButton", "sqlite_sequence",
                                               "notificationButton_on_notificationId"}));
    RawDatabase raw(path);
    EXPECT_EQ(raw.query("SELECT id, version FROM notification"), (Rows{{"7", "kept"}}));
    EXPECT_EQ(raw.query("PRAGMA foreign_key_list(\"notificationButton\")").size(), 1U);
}

TEST_F(SchemaTest, AFailingStepCreatesNeitherTable) {
    RawDatabase(path).execute(
        "CREATE TABLE other (x); CREATE INDEX \"notificationButton_on_notificationId\" ON other (x)");
    auto error = caught<DatabaseError>([&] { configure(); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->resultCode(), SQLITE_ERROR);
    EXPECT_EQ(RawDatabase(path).scalar("SELECT count(*) FROM sqlite_master WHERE name LIKE 'notification%'"), "1");
}

TEST_F(SchemaTest, ConstraintsHoldOnTheLibrarysConnections) {
    configure();
    DatabasePool pool(path, writable());
    auto run = [&](const std::string& sql) {
        return pool.write([&](Connection& connection) {
            connection.execute(sql);
            return connection.lastInsertedRowID();
        });
    };
    // Column, a value, and whether NULL is refused there.
    const std::vector<std::tuple<std::string, std::string, bool>> columns = {
        {"customerId", "'c'", false},   {"createdDate", "'2024-03-05 17:04:09.250'", true},
        {"version", "'1.0'", true},     {"analyticsTag", "'tag'", true},
        {"title", "'t'", false},        {"body", "'b'", false},
        {"bannerUrl", "'u'", false},    {"isMarketing", "0", true},
        {"appId", "7", false},          {"status", "0", true},
        {"notificationKind", "1", true}};
    // An INSERT with NULL in the column `nullColumn` names, or in every optional one ("optional").
    auto insert = [&](const std::string& nullColumn) {
        std::string names;
        std::string values;
        for (const auto& [name, value, required] : columns) {
            names += (names.empty() ? "\"" : ", \"") + name + "\"";
            const bool null = name == nullColumn || (nullColumn == "optional" && !required);
            values += (values.empty() ? "" : ", ") + (null ? std::string("NULL") : value);
        }
        return run("INSERT INTO notification (" + names + ") VALUES (" + values + ")");
    };
    for (const auto& [name, value, required] : columns) {
        if (!required) continue;
        auto error = caught<DatabaseError>([&] { insert(name); });
        ASSERT_TRUE(error) << name;
        EXPECT_EQ(error->extendedResultCode(), SQLITE_CONSTRAINT_NOTNULL) << name;
    }
    const std::string first = std::to_string(insert("optional"));
    const std::string second = std::to_string(insert(""));
    const std::int64_t third = insert("");

    auto button = [&](const std::string& owner) {
        run("INSERT INTO notificationButton (visible, notificationId) VALUES (1, " + owner + ")");
    };
    auto orphan = caught<DatabaseError>([&] { button("999"); });
    ASSERT_TRUE(orphan);
    EXPECT_EQ(orphan->extendedResultCode(), SQLITE_CONSTRAINT_FOREIGNKEY);
    for (const auto& owner : {first, first, second, std::string("NULL")}) button(owner);
    // No action on update: a referenced id cannot change under its buttons.
    auto renumbered = caught<DatabaseError>([&] { run("UPDATE notification SET id = 100 WHERE id = " + second); });
    ASSERT_TRUE(renumbered);
    EXPECT_EQ(renumbered->extendedResultCode(), SQLITE_CONSTRAINT_FOREIGNKEY);

    RawDatabase raw(path);
    auto owners = [&] { return raw.query("SELECT notificationId FROM notificationButton ORDER BY id"); };
    run("DELETE FROM notification WHERE id = " + first);
    EXPECT_EQ(owners(), (Rows{{second}, {"NULL"}}));
    run("DELETE FROM notification WHERE id = " + std::to_string(third));
    const std::int64_t next = insert("");
    EXPECT_GT(next, third) << "the id of the deleted highest row was handed out again";
    run("DELETE FROM notification");
    EXPECT_EQ(owners(), (Rows{{"NULL"}}));
    EXPECT_EQ(raw.scalar("SELECT seq FROM sqlite_sequence WHERE name = 'notification'"), std::to_string(next));
}

}  // namespace
}  // namespace notificationdb
