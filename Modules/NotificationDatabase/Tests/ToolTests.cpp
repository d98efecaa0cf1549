// The notificationdb tool as people run it: each row is a bash line run after the prelude below, on a
// private session bus, in a fresh directory that is also HOME. It gives standard input, fragments of
// standard output and error (empty: none at all), the exit status, and files that must and must not
// exist afterwards. Every line on standard error is in the tool's style.

#include "Testing.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace {

namespace fs = std::filesystem;

const fs::path toolPath = NDB_TOOL_PATH;

const std::string prelude = R"(export HOME="$PWD" XDG_DATA_HOME="$PWD/share"
ndb() { "$NDB_TOOL" "$@"; }                    # the tool
db() { ndb --database db.sqlite "$@"; }        # the tool on ./db.sqlite
seed() { db --create receive sample.json >/dev/null; }  # the three notifications below, in a new file
sql() { sqlite3 db.sqlite "$@"; }
scribble() { dd if=/dev/zero of=db.sqlite bs=4096 seek=1 count=1 conv=notrunc status=none; }  # page 2: "notification"
)";

// Dated in 2099, which the pruning keeps: RFC 3339 in UTC, seconds since 1970, RFC 3339 with an offset.
const std::string sample = R"([
 {"notification": {"id": 7, "customerId": "c-1", "createdDate": "2099-01-02T03:04:05.678Z", "version": "2.1",
   "analyticsTag": "t", "title": "New app", "isMarketing": true, "appId": 42, "status": "read",
   "notificationKind": "newApp"},
  "notificationButton": {"buttonId": "open", "title": "Open", "visible": true, "actionKind": "openLink",
   "userAction": "AP8Qf4A="}},
 {"notification": {"id": 8, "customerId": "c-1", "createdDate": 4070908800, "version": "2.2",
   "analyticsTag": "", "isMarketing": false, "status": 0, "notificationKind": 3}},
 {"notification": {"createdDate": "2098-12-31T23:30:00-02:00", "version": "1", "analyticsTag": "t",
   "isMarketing": false, "status": "shown", "notificationKind": "default"}}])";

// An entry with these fields added to the required ones.
std::string entry(const std::string& fields) {
    return R"({"notification": {"version": "1", "analyticsTag": "t", "isMarketing": false, )" + fields + "}}";
}
const std::string good = entry(R"("createdDate": "2099-01-01", "status": 0, "notificationKind": 0)");

struct Row {
    std::string line, input, out, err;
    int status = 0;
    std::vector<std::string> present = {}, absent = {};
};

// clang-format off
const std::vector<Row> rows = {
    // Reading never writes: a missing file is reported and nothing is created, not even by path.
    {"ndb --database nope/sub/typo.sqlite list", "", "",
     "notificationdb: cannot open nope/sub/typo.sqlite: No such file or directory\n", 3, {}, {"nope"}},
    {"for c in list count 'contains-version 1' 'contains --kind ai --customer c' check; do db $c; echo $?; done", "",
     "3\n3\n3\n3\n3\n", "notificationdb: cannot open db.sqlite: No such file or directory\n", 0, {}, {"db.sqlite"}},
    // Nor does writing unless asked (--create, also for a read); the user's own database is made by a write.
    {"for c in 'receive sample.json' cleanup 'mark --status read 7' 'delete 7' 'reset --yes'; do ndb --database nope/db.sqlite $c; echo $?; done",
     "", "3\n3\n3\n3\n3\n", "notificationdb: cannot open nope/db.sqlite: No such file or directory; --create makes a new "
     "database there\n", 0, {}, {"nope"}},
    {"ndb --database new/sub/db.sqlite --create count && ndb receive sample.json", "",
     "0\nreceived 3 entries; stored notifications: 0 before, 3 after\n", "", 0,
     {"new/sub/db.sqlite", "share/Vantro/Default/Databases/NotificationDatabase.sqlite"}},
    // Another program's database is refused by every command, and stays as it was (not even WAL).
    {"sql 'CREATE TABLE a(x)' && cp db.sqlite before && for c in count 'list --json' '--create receive sample.json' "
     "'reset --yes' 'delete 1' 'contains-version 1'; do db $c; echo $?; done; cmp db.sqlite before", "", "3\n3\n3\n3\n3\n3\n",
     "notificationdb: cannot open db.sqlite: not a notification database (no table \"notification\"; its tables: \"a\")\n",
     0, {}, {"db.sqlite-wal"}},
    {"ndb count", "", "", "/share/Vantro/Default/Databases/NotificationDatabase.sqlite: No such file or directory\n",
     3, {}, {"share"}},
    // The user's data directory follows XDG_DATA_HOME when it is absolute, else HOME.
    {R"(for x in "$PWD/share" '' relative; do XDG_DATA_HOME=$x ndb path; done | sed "s|$PWD|~|" && ndb path --json)", "",
     "~/share/Vantro/Default/Databases/NotificationDatabase.sqlite\n~/.local/share/Vantro/Default/Databases/"
     "NotificationDatabase.sqlite\n~/.local/share/Vantro/Default/Databases/NotificationDatabase.sqlite\n{\n  \"path\": \"",
     "", 0, {}, {"share", ".local", "relative"}},
    // A WAL database without its -wal and -shm files reads, and stays as it was.
    {"seed && cp db.sqlite before && test ! -e db.sqlite-wal && db count && cmp db.sqlite before", "", "3\n", ""},
    // Reads answer, from the last commit, while another process holds a write transaction.
    {R"(seed && sqlite3 db.sqlite "BEGIN IMMEDIATE" "DELETE FROM notification" ".shell \"$NDB_TOOL\" --database db.sqlite count; echo read=\$?" ROLLBACK)",
     "", "3\nread=0\n", ""},
    // A bare file name lies in the current directory: no folder to create, nothing logged.
    {"db --create receive sample.json", "", "received 3 entries; stored notifications: 0 before, 3 after\n", "", 0,
     {"db.sqlite"}},

    // A failure is never an answer: a damaged page fails every command; an older table counts, does not list.
    {"seed && scribble && for c in list 'list --json' count 'contains-version nope' 'contains --kind ai --customer c-1' "
     "'receive sample.json' cleanup 'mark --status read 7' 'buttons --hide 7' 'delete 7' 'delete-kind newApp' "
     "'reset --yes'; do db $c >out; echo $? $(wc -c <out); done", "", "4 0\n4 0\n4 0\n4 0\n4 0\n4 0\n4 0\n4 0\n4 0\n4 0\n4 0\n4 0\n",
     "notificationdb: db.sqlite: Unable to read wrapped notifications: SQLite error 11 (SQLITE_CORRUPT): database disk "
     "image is malformed\nnotificationdb: list: the store failed on db.sqlite (its message above); no answer printed\n"},
    {"sql 'CREATE TABLE notification(id INTEGER PRIMARY KEY, version TEXT); CREATE TABLE notificationButton(id, "
     "notificationId); INSERT INTO notification VALUES (1, 1)' && db count && db list; echo $?", "", "1\n4\n",
     "notificationdb: db.sqlite: Unable to read wrapped notifications: SQLite error 1 (SQLITE_ERROR): no such column"},
    // Failures the store drops without a word show in the file afterwards.
    {R"(seed && sql "CREATE TRIGGER k BEFORE DELETE ON notification BEGIN SELECT RAISE(ABORT, 'kept'); END;
        CREATE TRIGGER i BEFORE UPDATE ON notificationButton BEGIN SELECT RAISE(IGNORE); END;
        CREATE TRIGGER j BEFORE UPDATE ON notification BEGIN SELECT RAISE(IGNORE); END" &&
        for c in 'buttons --hide 7' 'mark --status new 7' 'delete 7' 'delete-kind newApp' 'reset --yes'; do db $c; echo $?; done)",
     "", "4\n4\n4\n4\n4\n", "notificationdb: delete: db.sqlite: still stored: 7 (the store reported no failure)\n"},

    // One style: the version, our own message for every usage error, reasons from the system.
    {"ndb --version", "", "notificationdb 159.0.0 (PROGRAM:NotificationDatabase  PROJECT:Modules-159)\n", ""},
    {"ndb frobnicate", "", "", "notificationdb: unknown command 'frobnicate'; commands: path, receive, cleanup, "
     "list, count, check, mark, buttons, delete, delete-kind, reset, contains-version, contains, watch\n", 2},
    {"ndb watch --count 0", "", "", "notificationdb: watch: --count must be 1 or more\n", 2},
    {"db watch", "", "", "notificationdb: watch: --database does not apply: the change notice names no file, so watch "
     "hears the notices of every database of the user\n", 2},
    {"db list --since tomorrow", "", "", "notificationdb: 'tomorrow' is not a date (", 2},
    {"ndb mark --status", "", "", "notificationdb: mark: --status needs a value; see 'notificationdb mark --help'\n", 2},
    {"ndb mark 7", "", "", "notificationdb: mark: missing --status; see 'notificationdb mark --help'\n", 2},
    {"ndb list --ids 1 --bogus", "", "", "notificationdb: list: unknown option '--bogus'", 2},
    {"db delete seven", "", "", "notificationdb: 'seven' is not a notification id\n", 2, {}, {"db.sqlite"}},
    {"db mark --status forgotten 7", "", "",
     "notificationdb: 'forgotten' is not a NotificationStatus (new, shown, read, or 0 to 2)\n", 2, {}, {"db.sqlite"}},
    {"db --read-only reset", "", "", "notificationdb: reset writes to the database; drop --read-only\n", 2, {},
     {"db.sqlite"}},
    {"db receive missing.json", "", "", "notificationdb: cannot read missing.json: No such file or directory\n", 2,
     {}, {"db.sqlite"}},
    // Answers as JSON; false is status 1.
    {"seed && db count --json && db contains --kind NEWAPP --customer c-1 --json && db contains-version 9 --json", "",
     "{\n  \"count\": 3\n}\n{\n  \"contains\": true\n}\n{\n  \"contains\": false\n}\n", "", 1},
    // reset asks on a terminal (echo and prompt in either order), takes no for an answer, else goes ahead.
    {R"sh(seed && script -qec "$NDB_TOOL --database db.sqlite reset" /dev/null; echo " status=$? $(db count)"; db reset; db count)sh",
     "n\n", "reset not confirmed; nothing deleted\r\n status=1 3\n3 notifications and 1 button deleted\n0\n", ""},
    // Writes change what they name and say so (ids not stored: status 1), in the file itself, not its WAL.
    {R"(seed && db cleanup && db mark --status shown 7,8 && db buttons --hide 7 8 && db delete 8 && db delete-kind default &&
        sql "SELECT id, status FROM notification; SELECT visible FROM notificationButton"; db mark --status read 7,9 10; db delete 7 99; echo $?)",
     "", "stored notifications: 3 before, 3 after\n2 marked shown\n1 hidden, 1 without a button\n1 deleted\n1 deleted\n7|1\n0\n"
     "1 marked read, 2 not found: 9, 10\n1 deleted, 1 not found: 99\n1\n", "", 0, {}, {"db.sqlite-wal"}},

    // Input people have: RFC 3339 dates with an offset and any fraction, names in any letter case.
    {"db --create receive >/dev/null && db list --json",
     "[" + entry(R"("createdDate": "2099-11-01T12:00:00.1239+02:00", "status": "READ", "notificationKind": "newapp")") + "]",
     "\"createdDate\": \"2099-11-01 10:00:00.123\",", ""},
    // A malformed batch writes nothing; the message names entry, field and the valid values.
    {"db receive", "[" + good + ", " + entry(R"("createdDate": "2099-01-01", "status": 0, "notificationKind": "newApps")") + "]",
     "", "notificationdb: entry 1: field \"notification.notificationKind\": \"newApps\" is not a NotificationKind "
     "(default, newApp, appUpdate, vantroUpdate, ai, or 0 to 4)\n", 2, {}, {"db.sqlite"}},
    // list --json goes back through receive unchanged, button and bytes included.
    {"seed && db list --json >listed.json && ndb --database copy.sqlite --create receive listed.json >/dev/null && "
     "ndb --database copy.sqlite list --json | cmp - listed.json && grep -c '\"AP8Qf4A=\"' listed.json",
     "", "1\n", "", 0, {"copy.sqlite"}},
    {"seed && db list --ids 7,9", "", "#7  2099-01-02 03:04:05.678  newApp  read  customer \"c-1\"  app 42", ""},
    {"seed && for f in '--customer nobody' '--customer c-1' '--status read' '--kind 3' '--since 2099-01-01T01:30:00Z' "
     "'--limit 2' '--customer c-1 --status new --kind vantroUpdate'; do db list --json $f | grep -c '\"notification\": {'; done",
     "", "0\n2\n1\n1\n2\n2\n1\n", ""},

    // check changes nothing: a sound file (one customer over the limit) is sound; each damage is named.
    {R"(seed && sql "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 101) INSERT INTO notification
        (customerId, createdDate, version, analyticsTag, isMarketing, status, notificationKind)
        SELECT 'c-2', '2000-01-01 00:00:0' || (i % 10), i, 't', 0, 0, 0 FROM n" && cp db.sqlite before && db check && cmp db.sqlite before)",
     "", "rows: 104 notifications, 1 button; every row reads\norphan buttons: none\nnotifications with more than one button: none\n"
     "customers: 3\n  no customer: 1 notification, 2099-01-01 01:30:00.000 to 2099-01-01 01:30:00.000\n  \"c-1\": 2 "
     "notifications, 2099-01-01 00:00:00.000 to 2099-01-02 03:04:05.678\n  \"c-2\": 101 notifications, 2000-01-01 "
     "00:00:00.000 to 2000-01-01 00:00:09.000, 1 over the limit of 100, 101 30 days old or older\ndb.sqlite: sound\n", ""},
    {R"sh(seed && sql "PRAGMA foreign_keys = OFF; DROP INDEX notificationButton_on_notificationId; ALTER TABLE notification
        ADD COLUMN extra; UPDATE notification SET status = 7 WHERE id = 8; INSERT INTO notificationButton(visible,
        notificationId) VALUES (1, 7), (0, 99)" && cp db.sqlite before; db check; s=$?; cmp db.sqlite before || s=9; exit $s)sh",
     "", "foreign keys: 1 violation\n  notificationButton row 3 refers to a missing row of notification\njournal mode: wal\n"
     "schema: 2 differences\n  column notification.extra is not expected\n  index notificationButton_on_notificationId is "
     "missing\nrows: 3 notifications, 3 buttons; 1 cannot be read\n  notification 8: could not read column \"status\" of "
     "\"notification\": integer is no NotificationStatus\norphan buttons: 1\n  button 3 points at notification 99, which "
     "is not stored\nnotifications with more than one button: 1\n  notification 7 has buttons 1, 2\n", "", 1},
    {"seed && scribble && db check --json", "", "\"sound\": false,\n  \"problems\": [\n    \"integrity\",", "", 1},

    // Help that ships: the manual page renders, the completion completes, help shows global options once.
    {R"(MANWIDTH=80 man --warnings -l "$NDB_DOCS/notificationdb.1" | grep -x '       delete-kind KIND'
        source "$NDB_DOCS/notificationdb.bash-completion"
        try() { COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _notificationdb; echo "${COMPREPLY[*]}"; }
        try notificationdb de; try notificationdb --database x delete-kind n; try notificationdb mark --status ""
        try notificationdb list --status read --da; try notificationdb --database=sa; try notificationdb list --kind=n
        try notificationdb list --kind = n; for c in path receive watch; do ndb $c --help | grep -c -- '--database PATH'; done
        MANWIDTH=80 man -l "$NDB_DOCS/notificationdb.1" | grep -cxE 'EXIT STATUS|EXAMPLES|ENVIRONMENT|FILES|SEE ALSO')",
     "", "       delete-kind KIND\ndelete delete-kind\nnewApp\nnew shown read\n--database\n--database=sample.json\n"
     "--kind=newApp\nnewApp\n1\n1\n1\n5\n", ""},

    // A watcher hears another process's write, which posts its notices before it exits.
    {"ndb watch --count 1 --timeout 30 >heard 2>watching &\n"
     "until grep -qs watching watching || ! kill -0 $!; do sleep 0.05; done\n"
     "seed; wait $!; status=$?; cat heard; echo watch=$status",
     "", " UTC databaseUpdatedNotification\nwatch=0\n", ""},
    {"ndb watch --timeout 0.2", "", "", "notificationdb: timed out after hearing 0 notices\n", 1},
    {"DBUS_SESSION_BUS_ADDRESS=unix:path=$PWD/no-bus ndb watch", "", "",
     "notificationdb: cannot listen on the D-Bus session bus\n", 3},
};
// clang-format on

std::string readFile(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

class ToolRow : public ::testing::TestWithParam<std::size_t> {};

TEST_P(ToolRow, RunsAsStated) {
    if (toolPath.empty()) GTEST_SKIP() << "the notificationdb tool is not part of this build";
    const Row& row = rows[GetParam()];
    const notificationdb::testing::TemporaryDirectory base;
    const fs::path work = base / "work";
    fs::create_directory(work);
    std::ofstream(work / "sample.json", std::ios::binary) << sample;
    std::ofstream(base / "stdin", std::ios::binary) << row.input;
    std::ofstream(base / "row.sh", std::ios::binary) << prelude << row.line << "\n";
    ::setenv("NDB_TOOL", toolPath.c_str(), 1);
    ::setenv("NDB_DOCS", toolPath.parent_path().c_str(), 1);
    // The bus daemon's own complaints (about file limits, say) go elsewhere.
    const std::string command = "cd '" + work.string() +
                                "' && dbus-run-session -- sh -c "
                                "'exec bash ../row.sh 2>../stderr' <../stdin >../stdout 2>/dev/null";
    const int wait = std::system(command.c_str());
    const std::string out = readFile(base / "stdout"), err = readFile(base / "stderr");

    SCOPED_TRACE(row.line + "\n--- stdout:\n" + out + "--- stderr:\n" + err);
    EXPECT_EQ(WIFEXITED(wait) ? WEXITSTATUS(wait) : -1, row.status);
    // An empty fragment stands for no output at all.
    const auto holds = [](const std::string& text, const std::string& part) {
        return part.empty() ? text.empty() : text.find(part) != std::string::npos;
    };
    EXPECT_TRUE(holds(out, row.out)) << "standard output lacks:\n" << row.out;
    EXPECT_TRUE(holds(err, row.err)) << "standard error lacks:\n" << row.err;
    std::istringstream lines(err);
    for (std::string line; std::getline(lines, line);) EXPECT_TRUE(line.starts_with("notificationdb: ")) << line;
    for (const auto& name : row.present) EXPECT_TRUE(fs::exists(work / name)) << name;
    for (const auto& name : row.absent) EXPECT_FALSE(fs::exists(work / name)) << name;
}

INSTANTIATE_TEST_SUITE_P(Tool, ToolRow, ::testing::Range<std::size_t>(0, rows.size()));

}  // namespace
