// The notificationdb tool end to end: each command runs as a real child process on database
// files in a fresh directory.

#include "TestSupport.hpp"

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

namespace notificationdb {
namespace {

using namespace testing;
using namespace std::chrono_literals;
using ::testing::HasSubstr;

const std::string toolPath = NDB_TOOL_PATH;

// Date text `age` before now, as the store writes it.
std::string dateAgo(std::chrono::system_clock::duration age) {
    return *formatDateText(std::chrono::system_clock::now() - age);
}

struct ToolResult {
    int status = -1;
    std::string out;  // standard output
    std::string err;  // standard error
};

class Tool : public ::testing::Test {
protected:
    void SetUp() override {
        if (toolPath.empty()) GTEST_SKIP() << "the notificationdb tool is not part of this build";
    }

    // Runs the tool with `arguments`, standard input read from `input` (empty when absent).
    ToolResult run(const std::vector<std::string>& arguments, const std::optional<std::string>& input = {}) {
        const auto number = std::to_string(runs++);
        const auto inputPath = directory / ("stdin-" + number);
        const auto errorPath = directory / ("stderr-" + number);
        writeFile(inputPath, input.value_or(""));
        std::vector<std::string> shellArguments = {"-c",
                                                   R"(in=$1; err=$2; shift 2; exec "$@" <"$in" 2>"$err")",
                                                   "sh",
                                                   inputPath.string(),
                                                   errorPath.string(),
                                                   toolPath};
        shellArguments.insert(shellArguments.end(), arguments.begin(), arguments.end());
        ChildProcess child("/bin/sh", shellArguments);
        ToolResult result;
        for (const auto& line : child.readAll()) result.out += line + "\n";
        result.status = child.wait();
        result.err = readFile(errorPath);
        return result;
    }

    // The same, on the database file `name` in the test's directory.
    ToolResult runOn(const std::string& name, std::vector<std::string> arguments,
                     const std::optional<std::string>& input = {}) {
        arguments.insert(arguments.begin(), {"--database", (directory / name).string()});
        return run(arguments, input);
    }

    TemporaryDirectory directory;
    ScopedEnvironment home{"HOME", directory.path().string()};
    ScopedEnvironment dataHome{"XDG_DATA_HOME", (directory.path() / "share").string()};
    int runs = 0;
};

// Four entries: a notification with a button whose payload holds a zero byte and bytes above
// 0x7F, given with case names; one dated by seconds since 1970; a repeated id; one without
// customer, id or optional texts.
std::string exampleBatch() {
    const auto hourAgo = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch() - 1h);
    return R"([
      {"notification": {"id": 7, "customerId": "c-1", "createdDate": ")" +
           dateAgo(10min) + R"(",
        "version": "2.1", "analyticsTag": "unusedApps", "title": "New app", "body": "Try it",
        "bannerUrl": "https://example.org/b.png", "isMarketing": true, "appId": 42, "status": "read",
        "notificationKind": "newApp"},
       "notificationButton": {"buttonId": "open", "title": "Open", "visible": true,
        "actionKind": "openLink", "userAction": "AP8Qf4A="}},
      {"notification": {"id": 8, "customerId": "c-1", "createdDate": )" +
           std::to_string(hourAgo.count()) + R"(,
        "version": "2.2", "analyticsTag": "", "isMarketing": false, "status": 0, "notificationKind": 3},
       "notificationButton": null},
      {"notification": {"id": 7, "customerId": "c-2", "createdDate": ")" +
           dateAgo(5min) + R"(",
        "version": "9", "analyticsTag": "dup", "isMarketing": false, "status": "new", "notificationKind": 1}},
      {"notification": {"createdDate": ")" +
           dateAgo(2h).substr(0, 16) + R"(", "version": "1",
        "analyticsTag": "t", "isMarketing": false, "status": "shown", "notificationKind": "default"}}
    ])";
}

// A batch goes in through the updater; `list --json` shows it with every field in its JSON form,
// and fed to `receive` on a second database it gives back the same list, ids and buttons
// included. The plain list, the count and the questions read the same data.
TEST_F(Tool, ReceivedBatchListsAsJsonThatRoundTripsIntoAnotherDatabase) {
    auto received = runOn("first.sqlite", {"receive", "-"}, exampleBatch());
    ASSERT_EQ(received.status, 0) << received.err;
    EXPECT_THAT(received.out, HasSubstr("received 4 entries"));

    auto listed = runOn("first.sqlite", {"list", "--json"});
    ASSERT_EQ(listed.status, 0) << listed.err;
    const auto json = nlohmann::json::parse(listed.out);
    ASSERT_EQ(json.size(), 3U) << listed.out;
    const auto& newest = json[0];
    EXPECT_EQ(newest["notification"]["id"], 7);
    EXPECT_EQ(newest["notification"]["title"], "New app");
    EXPECT_EQ(newest["notification"]["status"], 2);
    EXPECT_EQ(newest["notification"]["notificationKind"], 1);
    EXPECT_EQ(newest["notification"]["isMarketing"], true);
    EXPECT_EQ(newest["notification"]["createdDate"].get<std::string>().size(), 23U);
    EXPECT_EQ(newest["notificationButton"]["notificationId"], 7);
    EXPECT_EQ(newest["notificationButton"]["actionKind"], 3);
    EXPECT_EQ(newest["notificationButton"]["userAction"], "AP8Qf4A=");
    EXPECT_EQ(json[1]["notification"]["id"], 8);
    EXPECT_TRUE(json[1]["notificationButton"].is_null());
    EXPECT_TRUE(json[2]["notification"]["customerId"].is_null());
    EXPECT_TRUE(json[2]["notification"]["title"].is_null());
    RawDatabase raw(directory / "first.sqlite");
    EXPECT_EQ(raw.scalar("SELECT hex(userAction) FROM notificationButton"), "00FF107F80");

    auto copied = runOn("second.sqlite", {"receive", (directory / "listed.json").string()}, std::nullopt);
    EXPECT_EQ(copied.status, 2) << "a missing input file is an input error";
    writeFile(directory / "listed.json", listed.out);
    copied = runOn("second.sqlite", {"receive", (directory / "listed.json").string()});
    ASSERT_EQ(copied.status, 0) << copied.err;
    EXPECT_EQ(runOn("second.sqlite", {"list", "--json"}).out, listed.out);
    const auto some = nlohmann::json::parse(runOn("second.sqlite", {"list", "--json", "--ids", "8,7,99"}).out);
    ASSERT_EQ(some.size(), 2U);
    EXPECT_EQ(some[1]["notification"]["id"], 8);
    EXPECT_EQ(runOn("second.sqlite", {"list", "--json", "--ids"}).out, "[]\n");

    auto plain = runOn("second.sqlite", {"list"});
    EXPECT_EQ(plain.status, 0);
    EXPECT_THAT(plain.out, HasSubstr("#7"));
    EXPECT_THAT(plain.out, HasSubstr("\"New app\""));
    EXPECT_THAT(plain.out, HasSubstr("openLink"));
    EXPECT_EQ(runOn("second.sqlite", {"count"}).out, "3\n");
}

// Exit statuses: 0 and 1 answer the two questions, 2 is a usage or input error, 3 a database
// that cannot be opened; the message of 3 is the sanitized database error.
TEST_F(Tool, ExitStatusesSeparateAnswersUsageErrorsAndUnopenableDatabases) {
    ASSERT_EQ(runOn("db.sqlite", {"receive"}, exampleBatch()).status, 0);

    auto yes = runOn("db.sqlite", {"contains-version", "2.2"});
    EXPECT_EQ(yes.status, 0);
    EXPECT_EQ(yes.out, "true\n");
    auto no = runOn("db.sqlite", {"contains-version", "2.20"});
    EXPECT_EQ(no.status, 1);
    EXPECT_EQ(no.out, "false\n");
    EXPECT_EQ(runOn("db.sqlite", {"contains", "--kind", "newApp", "--customer", "c-1", "--app-id", "42"}).status, 0);
    EXPECT_EQ(runOn("db.sqlite", {"contains", "--kind", "2", "--customer", "c-1"}).status, 1);

    EXPECT_EQ(run({}).status, 2);
    EXPECT_EQ(run({"frobnicate"}).status, 2);
    EXPECT_EQ(runOn("db.sqlite", {"contains", "--kind", "sometimes", "--customer", "c-1"}).status, 2);
    EXPECT_EQ(runOn("db.sqlite", {"mark", "7"}).status, 2);
    EXPECT_EQ(runOn("db.sqlite", {"mark", "--status", "forgotten", "7"}).status, 2);
    EXPECT_EQ(runOn("db.sqlite", {"buttons", "7"}).status, 2);
    EXPECT_EQ(runOn("db.sqlite", {"delete", "seven"}).status, 2);
    EXPECT_EQ(runOn("db.sqlite", {"--read-only", "reset"}).status, 2);
    EXPECT_EQ(runOn("db.sqlite", {"count"}).out, "3\n") << "a refused command changed the database";

    auto missing = runOn("missing.sqlite", {"--read-only", "count"});
    EXPECT_EQ(missing.status, 3);
    EXPECT_THAT(missing.err, HasSubstr("SQLITE_CANTOPEN"));
    EXPECT_FALSE(std::filesystem::exists(directory / "missing.sqlite"));

    writeFile(directory / "not-a-directory", "x");
    EXPECT_EQ(run({"--database", (directory / "not-a-directory" / "db.sqlite").string(), "count"}).status, 3);
    writeFile(directory / "garbage.sqlite", std::string(8192, 'g'));
    auto garbage = runOn("garbage.sqlite", {"count"});
    EXPECT_EQ(garbage.status, 3);
    EXPECT_THAT(garbage.err, HasSubstr("SQLITE_NOTADB"));

    // Without --database the tool works on the user's database below XDG_DATA_HOME.
    auto path = run({"path"});
    EXPECT_EQ(path.status, 0);
    EXPECT_EQ(path.out, (directory / "share/Vantro/Default/Databases/NotificationDatabase.sqlite").string() + "\n");
}

// The whole batch is checked before anything is written: one bad entry among good ones writes
// nothing, and the message names the entry's index and the field.
TEST_F(Tool, MalformedBatchWritesNothingAndNamesEntryAndField) {
    const std::string good =
        R"({"notification": {"id": 1, "createdDate": "2030-01-01", "version": "1",
                                 "analyticsTag": "t", "isMarketing": false, "status": 0, "notificationKind": 0}})";
    auto withBad = [&](const std::string& bad) { return "[" + good + ", " + good + ", " + bad + ", " + good + "]"; };
    const std::string base =
        R"("createdDate": "2030-01-01", "version": "1", "analyticsTag": "t", "isMarketing": false)";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {R"({"notification": {)" + base + R"(, "status": 7, "notificationKind": 0}})",
         R"(entry 2: field "notification.status": 7 is not a NotificationStatus)"},
        {R"({"notification": {)" + base + R"(, "status": 0, "notificationKind": "newApps"}})",
         R"(entry 2: field "notification.notificationKind": "newApps" is not a NotificationKind)"},
        {R"({"notification": {"createdDate": "2030-01-01", "analyticsTag": "t", "isMarketing": false,
             "status": 0, "notificationKind": 0}})",
         R"(entry 2: field "notification.version": is required)"},
        {R"({"notification": {)" + base + R"(, "status": 0, "notificationKind": 0, "apppId": 3}})",
         R"(entry 2: field "notification.apppId": unknown field)"},
        {R"({"notification": {)" + base + R"(, "status": 0, "notificationKind": 0},
             "notificationButton": {"visible": true, "userAction": "AP8"}})",
         R"(entry 2: field "notificationButton.userAction")"},
        {R"({"notification": {"createdDate": "2030-02-30", "version": "1", "analyticsTag": "t",
             "isMarketing": false, "status": 0, "notificationKind": 0}})",
         R"(entry 2: field "notification.createdDate")"},
        {R"({"notification": {)" + base + R"(, "status": 0, "notificationKind": 0, "appId": "42"}})",
         R"(entry 2: field "notification.appId": expected an integer)"},
    };
    for (const auto& [bad, message] : cases) {
        auto result = runOn("db.sqlite", {"receive"}, withBad(bad));
        EXPECT_EQ(result.status, 2) << bad;
        EXPECT_THAT(result.err, HasSubstr(message)) << bad;
    }
    for (const std::string text : {"", "{", "{\"notification\": {}}",
                                   "[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[["
                                   "[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[]]]"}) {
        EXPECT_EQ(runOn("db.sqlite", {"receive"}, text).status, 2) << text;
    }
    EXPECT_FALSE(std::filesystem::exists(directory / "db.sqlite")) << "a rejected batch opened the database";

    std::string huge = "[" + std::string(65 * 1024 * 1024, ' ') + "]";
    writeFile(directory / "huge.json", huge);
    auto tooLarge = runOn("db.sqlite", {"receive", (directory / "huge.json").string()});
    EXPECT_EQ(tooLarge.status, 2);
    EXPECT_THAT(tooLarge.err, HasSubstr("64 MiB"));

    ASSERT_EQ(runOn("db.sqlite", {"receive"}, withBad(good)).status, 0);
    EXPECT_EQ(runOn("db.sqlite", {"count"}).out, "1\n");
}

// Marking, hiding buttons and deleting act on the ids given and nothing else.
TEST_F(Tool, WritingCommandsChangeWhatTheyName) {
    ASSERT_EQ(runOn("db.sqlite", {"receive"}, exampleBatch()).status, 0);
    RawDatabase raw(directory / "db.sqlite");

    // Newest first: id 7 (read), id 8 (new), the one stored without id (shown).
    const std::string statuses =
        "SELECT group_concat(status) FROM (SELECT * FROM notification ORDER BY createdDate DESC)";
    EXPECT_EQ(raw.scalar(statuses), "2,0,1");
    EXPECT_EQ(runOn("db.sqlite", {"mark", "--status", "shown", "8", "999"}).status, 0);
    EXPECT_EQ(raw.scalar(statuses), "2,1,1");
    EXPECT_EQ(runOn("db.sqlite", {"mark", "--status", "0", "7"}).status, 0);
    EXPECT_EQ(raw.scalar(statuses), "0,1,1");
    EXPECT_EQ(runOn("db.sqlite", {"buttons", "--hide", "7"}).status, 0);
    EXPECT_EQ(raw.scalar("SELECT visible FROM notificationButton WHERE notificationId = 7"), "0");
    EXPECT_EQ(runOn("db.sqlite", {"buttons", "--show", "7"}).status, 0);
    EXPECT_EQ(raw.scalar("SELECT visible FROM notificationButton WHERE notificationId = 7"), "1");

    EXPECT_EQ(runOn("db.sqlite", {"delete", "7"}).status, 0);
    const std::string versions =
        "SELECT group_concat(version) FROM (SELECT * FROM notification ORDER BY createdDate DESC)";
    EXPECT_EQ(raw.scalar(versions), "2.2,1");
    EXPECT_EQ(raw.scalar("SELECT COUNT(*) FROM notificationButton"), "0");
    EXPECT_EQ(runOn("db.sqlite", {"delete-kind", "vantroUpdate"}).status, 0);
    EXPECT_EQ(raw.scalar(versions), "1");
    EXPECT_EQ(runOn("db.sqlite", {"reset"}).status, 0);
    EXPECT_EQ(runOn("db.sqlite", {"count"}).out, "0\n");
}

// A watcher in one process hears the notice of a batch received by another process.
TEST_F(Tool, WatchHearsAReceiveOfAnotherProcess) {
    if (!haveSessionBus()) GTEST_SKIP() << "DBUS_SESSION_BUS_ADDRESS is not set; run under dbus-run-session";
    const auto watcherErrors = directory / "watch-stderr";
    ChildProcess watcher("/bin/sh", {"-c", R"(err=$1; shift; exec "$@" 2>"$err")", "sh", watcherErrors.string(),
                                     toolPath, "watch", "--count", "1", "--timeout", "60"});
    const auto giveUp = std::chrono::steady_clock::now() + 10s;
    while (readFile(watcherErrors).find("watching") == std::string::npos && std::chrono::steady_clock::now() < giveUp) {
        std::this_thread::sleep_for(10ms);
    }
    ASSERT_THAT(readFile(watcherErrors), HasSubstr("watching databaseUpdatedNotification"));

    auto received = runOn("db.sqlite", {"receive"}, exampleBatch());
    ASSERT_EQ(received.status, 0) << received.err;

    auto line = watcher.readLine();
    ASSERT_TRUE(line.has_value());
    EXPECT_THAT(*line, HasSubstr("databaseUpdatedNotification"));
    EXPECT_EQ(watcher.wait(), 0);
}

// A watcher that hears nothing gives up after its time-out with status 1 (on a bus of its own,
// so that no other test's notice reaches it); without a reachable bus it fails with status 3.
TEST_F(Tool, WatchTimesOutOrFailsWithoutBus) {
    auto session = findProgram("dbus-run-session");
    if (!session) GTEST_SKIP() << "dbus-run-session is not installed";
    ChildProcess quiet(*session, {"--", toolPath, "watch", "--count", "1", "--timeout", "0.2"});
    quiet.readAll();
    EXPECT_EQ(quiet.wait(), 1);

    ScopedEnvironment noBus("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + (directory / "no-bus").string());
    auto unreachable = run({"watch", "--count", "1", "--timeout", "5"});
    EXPECT_EQ(unreachable.status, 3);
    EXPECT_THAT(unreachable.err, HasSubstr("bus"));
}

}  // namespace
}  // namespace notificationdb
