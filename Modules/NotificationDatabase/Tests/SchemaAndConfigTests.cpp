// Where the database file lives (and the file system calls that find and make its folder), the
// ready-made configurations, and the schema as any other SQLite client sees it.

#include <NotificationDatabase/DatabaseError.hpp>
#include <NotificationDatabase/Database/DatabasePool.hpp>
#include <NotificationDatabase/NotificationDatabaseConfigurator.hpp>
#include <NotificationDatabase/Platform/FileManager.hpp>

#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <pwd.h>

namespace notificationdb {
namespace {

namespace fs = std::filesystem;
using namespace testing;

// A user whose application support directory is empty.
class DatabaseConfigTest : public ::testing::Test {
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
    fs::path applicationSupportDirectory() const override { return system.applicationSupportDirectory(); }
    bool fileExists(const fs::path& path) const override {
        calls.push_back("fileExists " + path.string());
        return system.fileExists(path);
    }
    std::error_code createDirectory(const fs::path& path, bool withIntermediateDirectories) const override {
        calls.push_back("createDirectory " + path.string() + (withIntermediateDirectories ? " intermediate" : ""));
        return system.createDirectory(path, withIntermediateDirectories);
    }

    SystemFileManager system;
    mutable std::vector<std::string> calls;
};

// The database's location is the name below Vantro/Default/Databases of application support;
// computing it creates nothing, building a configuration creates the folder when the file is
// missing, and only then.
TEST_F(DatabaseConfigTest, ConstructionCreatesTheFolderOnlyWhenTheFileIsMissing) {
    EXPECT_EQ(NotificationDatabaseConfig::createDatabaseURl("NotificationDatabase.sqlite"), file);
    EXPECT_FALSE(fs::exists(dataHome));
    EXPECT_EQ(NotificationDatabaseConfig(file, writerConfiguration()).storageURL(), file);
    EXPECT_TRUE(fs::is_directory(databases));
    EXPECT_FALSE(fs::exists(file));

    const auto callsOfAConstruction = [&] {
        auto recorder = std::make_shared<RecordingFileManager>();
        FileManager::setDefaultManager(recorder);
        NotificationDatabaseConfig again(file, writerConfiguration());
        FileManager::setDefaultManager(nullptr);
        return recorder->calls;
    };
    EXPECT_EQ(callsOfAConstruction(),
              (std::vector<std::string>{"fileExists " + file.string(),
                                        "createDirectory " + databases.string() + " intermediate"}));
    writeFile(file, "");
    EXPECT_EQ(callsOfAConstruction(), std::vector<std::string>{"fileExists " + file.string()});
    EXPECT_NE(dynamic_cast<SystemFileManager*>(FileManager::defaultManager().get()), nullptr) << "not restored";
    EXPECT_TRUE(capture.entries().empty());
}

TEST_F(DatabaseConfigTest, AFileInTheWayOfTheFolderIsLoggedOnceAndTheStoreFailsLater) {
    fs::create_directories(databases.parent_path());
    writeFile(databases, "not a directory");

    NotificationDatabaseConfig config(file, writerConfiguration());
    EXPECT_EQ(config.storageURL(), file);
    const auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].level, LogLevel::error);
    EXPECT_TRUE(entries[0].loggerPath.ends_with("notification-database-config")) << entries[0].loggerPath;
    EXPECT_TRUE(entries[0].message.starts_with("Unable to create database directory: ")) << entries[0].message;
    EXPECT_GT(entries[0].message.size(), std::string("Unable to create database directory: ").size());

    capture.clear();
    const auto error = caught<DatabaseError>([&] { NotificationDatabaseImpl::create(config); });
    EXPECT_EQ(error.value().resultCode(), SQLITE_CANTOPEN);
    EXPECT_TRUE(capture.entries().empty());
    EXPECT_TRUE(fs::is_regular_file(databases));
}

// First use of the default configuration creates the folders, not the file; both wait 2 s on
// a lock, and the read-only one keeps its reader connections. Neither store logs anything.
TEST_F(DatabaseConfigTest, ReadyMadeConfigurationsAsAFreshProcessBuildsThem) {
    ChildProcess child(childProgram("config_constants"), {});
    const std::string busy = " busy " + std::to_string(static_cast<int>(BusyMode::Kind::timeout)) + " 2";
    EXPECT_EQ(child.readAll(), (std::vector<std::string>{
                                   "after first use: directory 1 file 0",
                                   "default " + file.string() + " readOnly 0" + busy + " persistentReaders 0",
                                   "readOnly " + file.string() + " readOnly 1" + busy + " persistentReaders 1",
                                   "read-only store on the missing file: error " + std::to_string(SQLITE_CANTOPEN),
                                   "stores: file 1 counts 0 0",
                                   "logs 0",
                               }));
    EXPECT_EQ(child.wait(), 0);
}

#ifndef __APPLE__
// XDG_DATA_HOME when it is an absolute path, else ~/.local/share, with HOME taken from the
// password database when it is not set; only named, never created.
TEST(PlatformFileManager, ApplicationSupportDirectoryFollowsXdgDataHomeThenHome) {
    TemporaryDirectory home;
    const SystemFileManager manager;
    {
        ScopedEnvironment homeVariable("HOME", home.path().string());
        for (const std::optional<std::string>& value :
             {std::optional<std::string>(), std::optional<std::string>(""), std::optional<std::string>("relative")}) {
            ScopedEnvironment dataHome("XDG_DATA_HOME", value);
            EXPECT_EQ(manager.applicationSupportDirectory(), home.path() / ".local/share") << value.value_or("unset");
        }
        ScopedEnvironment dataHome("XDG_DATA_HOME", (home / "xdg-data").string());
        EXPECT_EQ(manager.applicationSupportDirectory(), home / "xdg-data");
    }
    EXPECT_TRUE(fs::is_empty(home.path()));

    const passwd* entry = ::getpwuid(::geteuid());
    if (entry == nullptr || entry->pw_dir == nullptr) GTEST_SKIP() << "the user has no password database entry";
    ScopedEnvironment noHome("HOME", std::nullopt);
    ScopedEnvironment noDataHome("XDG_DATA_HOME", std::nullopt);
    EXPECT_EQ(manager.applicationSupportDirectory(), fs::path(entry->pw_dir) / ".local/share");
}
#endif

// With intermediates a whole chain is made, and an existing directory is success; without them
// a missing parent and an existing directory fail. A plain file where a directory belongs, as
// the last component or one in the middle, is an error either way and is left alone.
TEST(PlatformFileManager, CreatesDirectoriesWithAndWithoutIntermediates) {
    TemporaryDirectory root;
    const SystemFileManager manager;
    const auto chain = root / "Vantro" / "Default" / "Databases";
    const auto blocker = root / "blocker";
    writeFile(blocker, "not a directory");
    const struct {
        fs::path path;
        bool intermediates;
        bool succeeds;
    } cases[] = {
        {chain, true, true},
        {chain, true, true},
        {chain, false, false},
        {root / "a" / "b", false, false},
        {root / "single", false, true},
        {blocker, true, false},
        {blocker, false, false},
        {blocker / "deeper", true, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(!manager.createDirectory(c.path, c.intermediates), c.succeeds) << c.path << " " << c.intermediates;
    }
    EXPECT_TRUE(fs::is_directory(chain));
    EXPECT_TRUE(fs::is_directory(root / "single"));
    EXPECT_FALSE(fs::exists(root / "a"));
    EXPECT_EQ(readFile(blocker), "not a directory");
}

TEST(PlatformFileManager, FileExistsForAnythingAtThePathAndNeverThrows) {
    TemporaryDirectory root;
    const SystemFileManager manager;
    writeFile(root / "file", "");
    fs::create_directory(root / "directory");
    fs::create_symlink(root / "nowhere", root / "dangling");
    for (const auto* name : {"file", "directory", "dangling"}) EXPECT_TRUE(manager.fileExists(root / name)) << name;
    EXPECT_FALSE(manager.fileExists(root / "nowhere"));
    EXPECT_FALSE(manager.fileExists(root / "file" / "below-a-file"));
    EXPECT_FALSE(manager.fileExists(""));
}

class SchemaTest : public ::testing::Test {
protected:
    void configure(const Configuration& configuration = writerConfiguration()) {
        DatabasePool pool(path, configuration);
        NotificationDatabaseConfigurator(NotificationDatabaseConfig(path, configuration)).configure(pool);
    }
    Rows master() const {
        return RawDatabase(path).query("SELECT type, name, tbl_name, sql FROM sqlite_master ORDER BY rowid");
    }
    // The columns of `table` as "name type", with NOT NULL and PK where they apply.
    std::string columns(const std::string& table) const {
        return RawDatabase(path).scalar(
            "SELECT group_concat(name || ' ' || type || iif(\"notnull\", ' NOT NULL', '') "
            "|| iif(pk, ' PK', '') || iif(dflt_value IS NULL, '', ' DEFAULT'), ', ') "
            "FROM pragma_table_info('" +
            table + "')");
    }

    TemporaryDirectory directory;
    const fs::path path = directory / "schema.sqlite";
};

TEST_F(SchemaTest, TablesIndexAndForeignKeyAsAnotherClientSeesThem) {
    configure();
    RawDatabase raw(path);
    EXPECT_EQ(columns("notification"),
              "id INTEGER PK, customerId TEXT, createdDate DATETIME NOT NULL, version TEXT NOT NULL, analyticsTag TEXT "
              "NOT NULL, title TEXT, body TEXT, bannerUrl TEXT, isMarketing BOOLEAN NOT NULL, appId INTEGER, status "
              "INTEGER NOT NULL, notificationKind INTEGER NOT NULL");
    EXPECT_EQ(columns("notificationButton"),
              "id INTEGER PK, buttonId TEXT, title TEXT, visible BOOLEAN NOT NULL, "
              "notificationId INTEGER, actionKind INTEGER, userAction BLOB");
    // Ordinary rowid tables, neither WITHOUT ROWID nor STRICT; ids handed out by AUTOINCREMENT
    // (the sequence table), so that an id is never used twice.
    EXPECT_EQ(raw.query("SELECT name, type, wr, strict FROM pragma_table_list WHERE schema = 'main' ORDER BY name"),
              (Rows{{"notification", "table", "0", "0"},
                    {"notificationButton", "table", "0", "0"},
                    {"sqlite_schema", "table", "0", "0"},
                    {"sqlite_sequence", "table", "0", "0"}}));
    // seq, name, unique, origin, partial; then the indexed column.
    EXPECT_EQ(raw.query("PRAGMA index_list(\"notificationButton\")"),
              (Rows{{"0", "notificationButton_on_notificationId", "0", "c", "0"}}));
    EXPECT_EQ(raw.query("PRAGMA index_info(\"notificationButton_on_notificationId\")"),
              (Rows{{"0", "4", "notificationId"}}));
    EXPECT_TRUE(raw.query("PRAGMA index_list(\"notification\")").empty());
    // id, seq, table, from, to, on_update, on_delete, match
    EXPECT_EQ(raw.query("PRAGMA foreign_key_list(\"notificationButton\")"),
              (Rows{{"0", "0", "notification", "notificationId", "id", "NO ACTION", "CASCADE", "NONE"}}));
    EXPECT_TRUE(raw.query("PRAGMA foreign_key_list(\"notification\")").empty());
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
    DatabasePool pool(path, writerConfiguration());
    pool.write([&](Connection& connection) {
        sqlite3_trace_v2(connection.handle(), SQLITE_TRACE_STMT, &traceStatement, &executed);
    });
    NotificationDatabaseConfigurator(NotificationDatabaseConfig(path, writerConfiguration())).configure(pool);
    ASSERT_FALSE(executed.empty()) << "the trace saw nothing, so it proves nothing";
    for (const auto& sql : executed) EXPECT_EQ(sql.find("CREATE"), std::string::npos) << sql;
    EXPECT_EQ(master(), before);
    EXPECT_EQ(RawDatabase(path).scalar("PRAGMA schema_version"), versionBefore);

    // A read-only pool can run the set-up once both tables exist.
    EXPECT_NO_THROW(configure(readerConfiguration()));
}

TEST_F(SchemaTest, ExistingTablesStayAsTheyAreAndMissingOnesAreAdded) {
    RawDatabase(path).execute(
        "CREATE TABLE \"Notification\" (id INTEGER PRIMARY KEY, version TEXT);"
        "INSERT INTO \"Notification\" VALUES (7, 'kept')");
    const Rows before = master();
    EXPECT_EQ(caught<DatabaseError>([&] { configure(readerConfiguration()); }).value().resultCode(), SQLITE_READONLY);
    EXPECT_EQ(master(), before);

    configure();
    Rows after = master();
    ASSERT_EQ(after.size(), 4U);
    EXPECT_EQ(after[0], before[0]) << "the existing table (named in another case) was altered";
    EXPECT_EQ(
        (std::vector{after[1][1], after[2][1], after[3][1]}),
        (std::vector<std::string>{"notificationButton", "sqlite_sequence", "notificationButton_on_notificationId"}));
    EXPECT_EQ(RawDatabase(path).query("SELECT id, version FROM notification"), (Rows{{"7", "kept"}}));
}

TEST_F(SchemaTest, AFailingStepCreatesNeitherTable) {
    RawDatabase(path).execute(
        "CREATE TABLE other (x); CREATE INDEX \"notificationButton_on_notificationId\" ON other (x)");
    EXPECT_EQ(caught<DatabaseError>([&] { configure(); }).value().resultCode(), SQLITE_ERROR);
    EXPECT_EQ(RawDatabase(path).scalar("SELECT count(*) FROM sqlite_master WHERE name LIKE 'notification%'"), "1");
}

}  // namespace
}  // namespace notificationdb
