// notificationdb: inspect and change the notification database of the current user (or any
// database file) from the command line, through the library's own store and updater.
//
// One table lists the commands; it builds the command line, and the help, the manual page and
// the completion script are all written from that command line.

#include "Check.hpp"
#include "Enumerations.hpp"
#include "HelpFiles.hpp"
#include "JsonCoding.hpp"
#include "ListFormatting.hpp"
#include "SQLiteFile.hpp"
#include "StoreLog.hpp"

#include <NotificationDatabase/Extensions/NotificationName.hpp>
#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/NotificationDatabaseConfig.hpp>
#include <NotificationDatabase/NotificationUpdater/NotificationUpdaterImpl.hpp>
#include <NotificationDatabase/Platform/DistributedNotificationCenter.hpp>
#include <NotificationDatabase/Database/DatabaseError.hpp>
#include <NotificationDatabase/Platform/LogSanitizer.hpp>
#include <NotificationDatabase/Platform/Logger.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>
#include <NotificationDatabase/Version.hpp>

#include <CLI/CLI.hpp>

#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace notificationdb::tool {
namespace {

enum ExitStatus : int {
    success = 0,
    answeredFalse = 1,  // also: a named id not stored, a check that found something wrong, a
                        // watch that timed out, a reset not confirmed
    usageError = 2,     // bad arguments or input, or a write under --read-only
    unavailable = 3,    // the file is missing (without --create), no SQLite database, not a
                        // notification database, or not writable for a write; for watch: no bus
    storeFailed = 4,    // the store reported a failure while the command ran, or the file shows
                        // that a change did not land; nothing printed is an answer then
};

// Ends the command with `status` after printing "notificationdb: " and `what()` on stderr.
class CommandError : public std::runtime_error {
public:
    CommandError(ExitStatus status, const std::string& message) : std::runtime_error(message), status_(status) {}
    ExitStatus status() const noexcept { return status_; }

private:
    ExitStatus status_;
};

// The values of all options; each command binds the ones it takes. Numbers stay text until the
// command reads them, so that every message about them is the tool's own.
struct Arguments {
    std::optional<std::string> database;
    bool create = false;
    bool readOnly = false;
    bool version = false;
    std::optional<std::string> manualPageFile;
    std::optional<std::string> completionFile;

    bool json = false;
    bool yes = false;
    bool show = false;
    bool hide = false;
    std::string file = "-";
    std::vector<std::string> ids;
    std::string status;
    std::string kind;
    std::string customer;
    std::string text;  // the version of contains-version
    std::optional<std::string> appID;
    std::optional<std::string> versionFilter;
    std::optional<std::string> since;
    std::optional<std::string> limit;
    std::optional<std::string> count;
    std::optional<std::string> timeout;
};

// What a command does with the database. `examines` reads a file that may be damaged or foreign.
enum class Access { none, reads, writes, examines };

class Context;

struct Command {
    std::string_view name;
    std::string_view summary;
    Access access;
    std::string_view json;  // help of its --json flag; empty: the command has none
    void (*declare)(CLI::App& command, Arguments& arguments);
    int (*run)(Context& context);
};

std::filesystem::path databasePath(const Arguments& arguments) {
    if (arguments.database) return *arguments.database;
    return NotificationDatabaseConfig::createDatabaseURl("NotificationDatabase.sqlite");
}

std::string names(const std::vector<std::string>& texts, std::string_view quote = "") {
    std::string list;
    for (const auto& text : texts) list += (list.empty() ? "" : ", ") + std::string(quote) + text + std::string(quote);
    return list;
}

// A store on the file as it is: read-only (never creating anything, never waiting for a writer)
// or read-write (creating the file and its folders when missing, as the library does).
std::shared_ptr<NotificationDatabaseImpl> createStore(const Arguments& arguments, bool writes) {
    const auto path = databasePath(arguments);
    try {
        if (!arguments.database) {
            return NotificationDatabaseImpl::create(writes ? NotificationDatabaseConfig::default_()
                                                           : NotificationDatabaseConfig::readOnly());
        }
        Configuration configuration;
        configuration.readOnly = !writes;
        configuration.busyMode = BusyMode::timeout(NotificationDatabaseConfig::busyTimeoutSeconds);
        configuration.persistentReadOnlyConnections = !writes;
        return NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, configuration));
    } catch (const std::exception& failure) {
        throw CommandError(unavailable, "cannot open " + path.string() + ": " + LogSanitizer::sanitizeError(failure));
    }
}

// Why there is no file at `path` ("No such file or directory"); empty when there is one. A
// folder there is an error.
std::string missingFile(const std::filesystem::path& path) {
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (std::filesystem::is_directory(status)) {
        throw CommandError(unavailable, "cannot open " + path.string() + ": " + std::strerror(EISDIR));
    }
    if (std::filesystem::exists(status)) return {};
    return error && error != std::errc::no_such_file_or_directory ? error.message() : std::strerror(ENOENT);
}

// Lets the command go on with the existing file at `path` only when it is the kind of file the
// command can work on: an SQLite database that holds the table "notification" (anything else
// belongs to another program and stays untouched) or no table at all (`empty`: a database yet
// to be set up); reading needs both tables, writing a file this user may write. `check`
// examines whatever SQLite takes for a database. Returns the tool's own connection to it.
std::unique_ptr<SQLiteFile> admit(const std::filesystem::path& path, Access access, bool& empty) {
    const std::string cannotOpen = "cannot open " + path.string() + ": ";
    std::unique_ptr<SQLiteFile> file;
    std::vector<std::string> tables;
    try {
        file = std::make_unique<SQLiteFile>(path);
        tables = file->tableNames();
    } catch (const DatabaseError& error) {
        if (access == Access::examines && file && error.resultCode() == SQLITE_CORRUPT) return file;
        const bool folder = error.extendedResultCode() == SQLITE_READONLY_DIRECTORY;
        const bool damaged = error.resultCode() == SQLITE_CORRUPT;
        throw CommandError(unavailable, cannotOpen + LogSanitizer::sanitizeError(error) +
                                            (folder    ? " (reading a WAL database needs its -shm file, which SQLite "
                                                         "cannot create in a folder this user may not write)"
                                             : damaged ? "; 'notificationdb check' examines what is left"
                                                       : ""));
    }
    empty = tables.empty();
    if (access == Access::examines || empty) return file;
    if (!holdsName(tables, "notification")) {
        throw CommandError(unavailable, cannotOpen +
                                            "not a notification database (no table \"notification\"; its tables: " +
                                            names(tables, "\"") + ")");
    }
    if (access == Access::reads && !holdsName(tables, "notificationButton")) {
        throw CommandError(unavailable, cannotOpen + "no table \"notificationButton\" (a command that writes adds it)");
    }
    if (access == Access::writes && ::access(path.c_str(), W_OK) != 0) {
        throw CommandError(unavailable, "cannot write " + path.string() + ": " + std::strerror(errno));
    }
    return file;
}

class Context {
public:
    Context(const Command& command, const Arguments& arguments, const CLI::App& app, StoreLog& log)
        : arguments(arguments), log(log), command_(command), app_(app) {}

    const Arguments& arguments;
    StoreLog& log;

    std::string name() const { return std::string(command_.name); }
    std::string path() const { return databasePath(arguments).string(); }
    bool given(const std::string& option) const { return app_.get_option(option)->count() > 0; }

    // Opened on first use, after the command has checked its input. A --database file must
    // exist unless --create asks for it; the user's own file is created by the first write.
    const std::shared_ptr<NotificationDatabaseImpl>& store() {
        if (store_) return store_;
        const auto path = databasePath(arguments);
        const bool writes = command_.access == Access::writes;
        const auto missing = missingFile(path);
        // A missing file, or one without tables, is a database yet to be made.
        bool empty = !missing.empty();
        if (!empty) file_ = admit(path, command_.access, empty);
        if (empty && (arguments.create || (writes && !arguments.database))) {
            // A read gets the new database set up first, so that it has tables to read; alone on
            // the file, so that the set-up lands in it and not in its WAL.
            file_.reset();
            if (!writes) createStore(arguments, true).reset();
        } else if (empty) {
            throw CommandError(unavailable, "cannot open " + path.string() + ": " +
                                                (file_ ? "it holds no notification tables yet" : missing) +
                                                (writes ? "; --create makes a new database there" : ""));
        }
        store_ = createStore(arguments, writes);
        return store_;
    }

    // The file through the tool's own read-only connection, for what the store does not say.
    SQLiteFile& file() {
        store();
        if (!file_) file_ = std::make_unique<SQLiteFile>(databasePath(arguments));
        return *file_;
    }

    // Ends the command when the store has logged a failure: whatever it answered is then its
    // neutral answer for a failure, and whatever it changed may be a part. `beforeWriting` says
    // that the command has not written yet.
    void settle(bool beforeWriting = false) const {
        if (log.failureCount() == 0) return;
        throw CommandError(storeFailed, name() + ": the store failed on " + path() + " (" +
                                            (log.failureCount() == 1 ? "its message" : "its messages") + " above); " +
                                            (command_.access != Access::writes ? "no answer printed"
                                             : beforeWriting                   ? "nothing written"
                                                                               : "the change may be incomplete"));
    }

    // Ends the command when the file shows that the change did not land on these notifications
    // (the store dropped a failure without a word, or something in the file undid the change).
    void requireLanded(const std::vector<std::int64_t>& missed, std::string_view what) const {
        if (missed.empty()) return;
        std::vector<std::string> ids;
        for (const auto id : missed) ids.push_back(std::to_string(id));
        throw CommandError(storeFailed, name() + ": " + path() + ": " + std::string(what) + ": " + names(ids) +
                                            " (the store reported no failure)");
    }

    // Prints `text`, or under --json the object {"key": value}.
    void answer(const std::string& key, const Json& value, const std::string& text) const {
        std::cout << (arguments.json ? Json{{key, value}}.dump(2) : text) << '\n';
    }

private:
    const Command& command_;
    const CLI::App& app_;
    std::shared_ptr<NotificationDatabaseImpl> store_;
    // Closed before the store: the last connection to close folds the WAL back into the file,
    // which a read-only one cannot do.
    std::unique_ptr<SQLiteFile> file_;
};

// --- reading arguments and input ---------------------------------------------------------------

std::int64_t parseInteger(const std::string& text, std::string_view what) {
    std::int64_t value = 0;
    const auto* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || text.empty()) {
        throw CommandError(usageError, "'" + text + "' is not " + std::string(what));
    }
    return value;
}

// Ids as given, each word one id or several joined by commas: "7 8", "7,8", "7,8 9".
NotificationIDs parseIDs(const std::vector<std::string>& texts) {
    NotificationIDs ids;
    for (const auto& text : texts) ids.insert(parseInteger(text, "a notification id"));
    return ids;
}

template <CaseEnumeration Enumeration>
Enumeration parseEnumeration(const std::string& text, std::string_view typeName) {
    if (auto value = fromCaseName<Enumeration>(text)) return *value;
    std::int64_t raw = 0;
    const auto* end = text.data() + text.size();
    if (const auto [stop, error] = std::from_chars(text.data(), end, raw); error == std::errc() && stop == end) {
        if (auto value = fromRawValue<Enumeration>(raw)) return *value;
    }
    throw CommandError(usageError,
                       "'" + text + "' is not a " + std::string(typeName) + " (" + validValues<Enumeration>() + ")");
}

// The date forms that JSON input takes, as text.
Timestamp parseDate(const std::string& text) {
    if (auto date = parseDateText(text)) return *date;
    if (auto date = parseZonedDate(text)) return *date;
    throw CommandError(usageError, "'" + text +
                                       "' is not a date (\"YYYY-MM-DD[ HH:MM[:SS[.SSS]]]\" in UTC, or RFC 3339 with a "
                                       "zone such as \"2026-11-01T12:00:00+02:00\")");
}

std::string readInput(const std::string& source) {
    std::FILE* file = source == "-" ? stdin : std::fopen(source.c_str(), "rb");
    if (file == nullptr) throw CommandError(usageError, "cannot read " + source + ": " + std::strerror(errno));
    std::string text;
    char buffer[65536];
    std::size_t count = 0;
    while ((count = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
        text.append(buffer, count);
        if (text.size() > maximumInputSize) break;  // parseBatch reports the size
    }
    const int error = std::ferror(file) != 0 ? errno : 0;
    if (file != stdin) std::fclose(file);
    if (error != 0) throw CommandError(usageError, "cannot read " + source + ": " + std::strerror(error));
    return text;
}

// --- what the file holds, asked of it directly -------------------------------------------------

// The ids among `ids` that have rows in `table`'s `column` ("id" of "notification", or
// "notificationId" of "notificationButton"), ascending; with `condition`, only rows that match
// it, with ?2 bound to `value`.
std::vector<std::int64_t> rowsAmong(SQLiteFile& file, std::string_view table, std::string_view column,
                                    const NotificationIDs& ids, std::string_view condition = {},
                                    std::int64_t value = 0) {
    const std::string sql = "SELECT DISTINCT \"" + std::string(column) + "\" FROM \"" + std::string(table) +
                            "\" WHERE \"" + std::string(column) + "\" IN (SELECT value FROM json_each(?1))" +
                            (condition.empty() ? "" : " AND " + std::string(condition)) + " ORDER BY 1";
    std::vector<std::int64_t> found;
    std::vector<SQLiteFile::Parameter> parameters{jsonArray({ids.begin(), ids.end()})};
    if (!condition.empty()) parameters.emplace_back(value);
    file.each(sql, parameters, [&](const SQLiteFile::Row& row) { found.push_back(row.integer(0)); });
    return found;
}

std::vector<std::int64_t> storedAmong(SQLiteFile& file, const NotificationIDs& ids, std::string_view condition = {},
                                      std::int64_t value = 0) {
    return rowsAmong(file, "notification", "id", ids, condition, value);
}

std::int64_t countRows(SQLiteFile& file, std::string_view table) {
    return file.integer("SELECT count(*) FROM \"" + std::string(table) + "\"").value_or(0);
}

std::string plural(std::int64_t count, std::string_view noun) {
    return std::to_string(count) + " " + std::string(noun) + (count == 1 ? "" : "s");
}

// Prints what a write did ("2 marked read"), adding the named ids that are not stored
// (", 1 not found: 9"), which make the status 1.
int reportChange(const std::string& done, const NotificationIDs& ids, const std::vector<std::int64_t>& found) {
    std::vector<std::string> missing;
    for (const auto id : ids) {
        if (!std::binary_search(found.begin(), found.end(), id)) missing.push_back(std::to_string(id));
    }
    std::cout << done;
    if (!missing.empty()) std::cout << ", " << missing.size() << " not found: " << names(missing);
    std::cout << '\n';
    return missing.empty() ? success : answeredFalse;
}

// --- commands ----------------------------------------------------------------------------------

int commandPath(Context& context) {
    const auto path = databasePath(context.arguments).string();
    context.answer("path", path, path);
    return success;
}

int commandReceive(Context& context) {
    std::vector<NotificationModelInfo> batch;
    try {
        // The whole batch is checked before the database is touched: a bad entry writes nothing.
        batch = parseBatch(readInput(context.arguments.file));
    } catch (const JsonInputError& error) {
        throw CommandError(usageError, error.what());
    }
    const auto& store = context.store();
    const auto before = store->notificationsCount();
    context.settle(true);
    NotificationUpdaterImpl(store).receive(batch);
    const auto after = store->notificationsCount();
    context.settle();
    std::cout << "received " << batch.size() << (batch.size() == 1 ? " entry" : " entries")
              << "; stored notifications: " << before << " before, " << after << " after\n";
    return success;
}

int commandCleanUp(Context& context) {
    const auto& store = context.store();
    const auto before = store->notificationsCount();
    context.settle(true);
    NotificationUpdaterImpl(store).cleanUp();
    const auto after = store->notificationsCount();
    context.settle();
    std::cout << "stored notifications: " << before << " before, " << after << " after\n";
    return success;
}

int commandList(Context& context) {
    const auto& arguments = context.arguments;
    const auto ids = context.given("--ids") ? std::optional(parseIDs(arguments.ids)) : std::nullopt;
    const auto status =
        context.given("--status")
            ? std::optional(parseEnumeration<NotificationStatus>(arguments.status, "NotificationStatus"))
            : std::nullopt;
    const auto kind = context.given("--kind")
                          ? std::optional(parseEnumeration<NotificationKind>(arguments.kind, "NotificationKind"))
                          : std::nullopt;
    const auto customer = context.given("--customer") ? std::optional(arguments.customer) : std::nullopt;
    const auto since = arguments.since ? std::optional(parseDate(*arguments.since)) : std::nullopt;
    const auto limit =
        arguments.limit ? std::optional(parseInteger(*arguments.limit, "a number of entries")) : std::nullopt;
    if (limit && *limit < 0) throw CommandError(usageError, "list: --limit must be 0 or more");

    auto infos = context.store()->fetchNotifications(ids);
    context.settle();
    std::erase_if(infos, [&](const NotificationModelInfo& info) {
        const auto& notification = info.notification;
        return (status && notification.status != *status) || (kind && notification.notificationKind != *kind) ||
               (customer && notification.customerId() != *customer) || (since && notification.createdDate < *since);
    });
    if (limit && static_cast<std::size_t>(*limit) < infos.size()) infos.erase(infos.begin() + *limit, infos.end());
    if (arguments.json) {
        std::cout << toJson(infos).dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
    } else {
        printNotificationList(std::cout, infos);
    }
    return success;
}

int commandCount(Context& context) {
    const auto count = context.store()->notificationsCount();
    context.settle();
    context.answer("count", count, std::to_string(count));
    return success;
}

int commandMark(Context& context) {
    const auto status = parseEnumeration<NotificationStatus>(context.arguments.status, "NotificationStatus");
    const auto ids = parseIDs(context.arguments.ids);
    const auto& store = context.store();
    const auto found = storedAmong(context.file(), ids);
    NotificationUpdaterImpl(store).updateStatus(ids, status);
    context.settle();
    context.requireLanded(storedAmong(context.file(), ids, "\"status\" IS NOT ?2", rawValue(status)),
                          "still not " + std::string(caseName(status)));
    return reportChange(std::to_string(found.size()) + " marked " + std::string(caseName(status)), ids, found);
}

int commandButtons(Context& context) {
    if (context.arguments.show == context.arguments.hide) {
        throw CommandError(usageError, "buttons: give one of --show and --hide");
    }
    const bool show = context.arguments.show;
    const auto ids = parseIDs(context.arguments.ids);
    const auto& store = context.store();
    const auto found = storedAmong(context.file(), ids);
    const auto withButtons = rowsAmong(context.file(), "notificationButton", "notificationId", ids);
    NotificationUpdaterImpl(store).updateButtonVisibility(ids, show);
    context.settle();
    // The store drops a failing update without a word and skips the ids after it.
    context.requireLanded(
        rowsAmong(context.file(), "notificationButton", "notificationId", ids, "\"visible\" IS NOT ?2", show ? 1 : 0),
        std::string("buttons still ") + (show ? "hidden" : "shown"));
    std::int64_t without = 0;
    for (const auto id : found) without += std::binary_search(withButtons.begin(), withButtons.end(), id) ? 0 : 1;
    return reportChange(std::to_string(withButtons.size()) + (show ? " shown" : " hidden") +
                            (without > 0 ? ", " + std::to_string(without) + " without a button" : ""),
                        ids, found);
}

int commandDelete(Context& context) {
    const auto ids = parseIDs(context.arguments.ids);
    const auto& store = context.store();
    const auto found = storedAmong(context.file(), ids);
    // Deletion goes by notification id and the buttons follow through the foreign key, so a bare
    // record carrying the id is enough; no read is needed, and rows that no longer read still go.
    NotificationModelInfoSet doomed;
    for (const auto id : ids) {
        doomed.emplace(NotificationModel(id, std::nullopt, Timestamp{}, {}, {}, std::nullopt, std::nullopt,
                                         std::nullopt, false, std::nullopt, NotificationStatus::new_,
                                         NotificationKind::default_));
    }
    store->deleteNotifications(doomed);
    context.settle();
    // The store drops a failing DELETE without a word.
    context.requireLanded(storedAmong(context.file(), ids), "still stored");
    return reportChange(std::to_string(found.size()) + " deleted", ids, found);
}

int commandDeleteKind(Context& context) {
    const auto kind = parseEnumeration<NotificationKind>(context.arguments.kind, "NotificationKind");
    const auto& store = context.store();
    const auto ofKind = [&] {
        return context.file()
            .integer("SELECT count(*) FROM \"notification\" WHERE \"notificationKind\" = ?1", {rawValue(kind)})
            .value_or(0);
    };
    const auto before = ofKind();
    store->deleteAllNotifications(kind);
    context.settle();
    if (const auto left = ofKind(); left > 0) {
        throw CommandError(storeFailed, "delete-kind: " + context.path() + ": " + plural(left, "notification") +
                                            " of kind " + std::string(caseName(kind)) +
                                            " still stored (the store reported no failure)");
    }
    std::cout << before << " deleted\n";
    return success;
}

int commandReset(Context& context) {
    if (!context.arguments.yes && ::isatty(STDIN_FILENO) != 0) {
        std::cerr << "notificationdb: delete every notification in " << context.path() << "? [y/N] " << std::flush;
        std::string reply;
        std::getline(std::cin, reply);
        if (reply != "y" && reply != "Y" && reply != "yes") {
            throw CommandError(answeredFalse, "reset not confirmed; nothing deleted");
        }
    }
    const auto& store = context.store();
    auto& file = context.file();
    const auto notifications = countRows(file, "notification"), buttons = countRows(file, "notificationButton");
    store->deleteAll();
    context.settle();
    // The store drops a failing DELETE without a word.
    const auto notificationsLeft = countRows(file, "notification"), buttonsLeft = countRows(file, "notificationButton");
    if (notificationsLeft + buttonsLeft > 0) {
        throw CommandError(storeFailed, "reset: " + context.path() + ": " + plural(notificationsLeft, "notification") +
                                            " and " + plural(buttonsLeft, "button") +
                                            " still stored (the store reported no failure)");
    }
    std::cout << plural(notifications, "notification") << " and " << plural(buttons, "button") << " deleted\n";
    return success;
}

// The store answers an existence question with a fixed value when it fails, and logs nothing.
// When that value is the answer, the file is asked the same question (`condition` over the
// columns of "notification") and the store reads the row that matches; a failure of either, or
// an answer that the file contradicts, ends the command.
void confirmFixedAnswer(Context& context, bool answer, const std::string& condition,
                        const std::vector<SQLiteFile::Parameter>& parameters) {
    const auto match =
        context.file().integer("SELECT \"id\" FROM \"notification\" WHERE " + condition + " LIMIT 1", parameters);
    if (match) {
        (void)context.store()->fetchNotifications(NotificationIDs{*match});
        context.settle();
    }
    if (match.has_value() == answer) return;
    throw CommandError(storeFailed, context.name() + ": " + context.path() + ": the store answered " +
                                        (answer ? "true" : "false") + ", its fixed answer when it fails, but " +
                                        (match ? "notification " + std::to_string(*match) + " matches"
                                               : "no stored notification matches"));
}

int answerWhether(Context& context, bool value) {
    context.settle();
    context.answer("contains", value, value ? "true" : "false");
    return value ? success : answeredFalse;
}

int commandContainsVersion(Context& context) {
    const auto& version = context.arguments.text;
    const bool value = context.store()->containsVantro(version);
    if (value) confirmFixedAnswer(context, true, "\"version\" = ?1", {version});
    return answerWhether(context, value);
}

int commandContains(Context& context) {
    const auto& arguments = context.arguments;
    const auto kind = parseEnumeration<NotificationKind>(arguments.kind, "NotificationKind");
    const auto appID = arguments.appID ? std::optional(parseInteger(*arguments.appID, "an app id")) : std::nullopt;
    const bool value = context.store()->containsNotification(kind, arguments.customer, appID, arguments.versionFilter);
    if (!value) {
        std::string condition = "\"customerId\" = ?1 AND \"notificationKind\" = ?2";
        std::vector<SQLiteFile::Parameter> parameters{arguments.customer, rawValue(kind)};
        if (appID) {
            parameters.emplace_back(*appID);
            condition += " AND \"appId\" = ?" + std::to_string(parameters.size());
        }
        if (arguments.versionFilter) {
            parameters.emplace_back(*arguments.versionFilter);
            condition += " AND \"version\" = ?" + std::to_string(parameters.size());
        }
        confirmFixedAnswer(context, false, condition, parameters);
    }
    return answerWhether(context, value);
}

int commandCheck(Context& context) {
    const auto path = databasePath(context.arguments);
    if (const auto missing = missingFile(path); !missing.empty()) {
        throw CommandError(unavailable, "cannot open " + path.string() + ": " + missing);
    }
    bool empty = false;
    admit(path, Access::examines, empty).reset();
    const bool sound = checkDatabase(
        path, context.log, [&] { return createStore(context.arguments, false); }, context.arguments.json, std::cout);
    return sound ? success : answeredFalse;
}

int commandWatch(Context& context) {
    std::optional<std::int64_t> count;
    if (context.arguments.count) {
        count = parseInteger(*context.arguments.count, "a number of notices");
        if (*count < 1) throw CommandError(usageError, "watch: --count must be 1 or more");
    }
    std::optional<double> timeout;
    if (context.arguments.timeout) {
        const auto& text = *context.arguments.timeout;
        char* end = nullptr;
        timeout = std::strtod(text.c_str(), &end);
        if (text.empty() || end != text.c_str() + text.size() || !std::isfinite(*timeout) || *timeout < 0) {
            throw CommandError(usageError, "'" + text + "' is not a number of seconds");
        }
    }

    auto& queue = MainQueue::main();
    std::int64_t heard = 0;
    auto token =
        DistributedNotificationCenter::defaultCenter()->addObserver(databaseUpdated(), [&](const std::string& name) {
            ++heard;
            std::cout << formatDateText(std::chrono::system_clock::now()).value_or("?") << " UTC " << name << std::endl;
            if (count && heard >= *count) queue.stop();
        });
    if (!token) throw CommandError(unavailable, "cannot listen on the D-Bus session bus");
    // Scripts wait for this line before they start writing.
    std::cerr << "notificationdb: watching " << databaseUpdated() << std::endl;

    if (timeout) {
        queue.runFor(std::chrono::duration_cast<MainQueue::Clock::duration>(std::chrono::duration<double>(*timeout)));
    } else {
        queue.run();
    }
    token.reset();
    // Only a time-out ends the loop short of the count.
    if (!count || heard < *count) {
        throw CommandError(answeredFalse, "timed out after hearing " + std::to_string(heard) +
                                              (count ? " of " + std::to_string(*count) : "") +
                                              (heard == 1 && !count ? " notice" : " notices"));
    }
    return success;
}

// --- the command table -------------------------------------------------------------------------

void addIDs(CLI::App& command, Arguments& arguments) {
    command.add_option("ID", arguments.ids, "notification ids (also comma-separated)")
        ->required()
        ->delimiter(',')
        ->type_name("ID");
}

const std::string kindHelp = validValues<NotificationKind>();
const std::string statusHelp = validValues<NotificationStatus>();

const std::array<Command, 14> commands{{
    {"path", "print the database file's path", Access::none, "print {\"path\": PATH}", [](CLI::App&, Arguments&) {},
     commandPath},
    {"receive", "take a JSON array of notifications through the updater (save each, then prune)", Access::writes, "",
     [](CLI::App& command, Arguments& arguments) {
         command.add_option("FILE", arguments.file, "file to read, or - for standard input (the default)")
             ->type_name("FILE");
     },
     commandReceive},
    {"cleanup", "prune: drop notifications 30 days old or older and all but 100 per customer", Access::writes, "",
     [](CLI::App&, Arguments&) {}, commandCleanUp},
    {"list", "print the stored notifications with their buttons, newest first", Access::reads,
     "print a JSON array that 'receive' takes back",
     [](CLI::App& command, Arguments& arguments) {
         command.add_option("--ids", arguments.ids, "only these notification ids (also comma-separated)")
             ->delimiter(',')
             ->expected(0, -1)
             ->type_name("ID");
         command.add_option("--status", arguments.status, "only this status: " + statusHelp)->type_name("STATUS");
         command.add_option("--kind", arguments.kind, "only this kind: " + kindHelp)->type_name("KIND");
         command.add_option("--customer", arguments.customer, "only this customer id")->type_name("TEXT");
         command.add_option("--since", arguments.since, "only notifications created at or after DATE (UTC)")
             ->type_name("DATE");
         command.add_option("--limit", arguments.limit, "at most N entries, the newest")->type_name("N");
     },
     commandList},
    {"count", "print the number of stored notifications", Access::reads, "print {\"count\": N}",
     [](CLI::App&, Arguments&) {}, commandCount},
    {"check", "examine the file without changing it; status 1 when anything is wrong", Access::examines,
     "print the report as one JSON object", [](CLI::App&, Arguments&) {}, commandCheck},
    {"mark", "set the status of notifications", Access::writes, "",
     [](CLI::App& command, Arguments& arguments) {
         command.add_option("--status", arguments.status, statusHelp)->required()->type_name("STATUS");
         addIDs(command, arguments);
     },
     commandMark},
    {"buttons", "show or hide the buttons of notifications", Access::writes, "",
     [](CLI::App& command, Arguments& arguments) {
         command.add_flag("--show", arguments.show, "show the buttons");
         command.add_flag("--hide", arguments.hide, "hide the buttons");
         addIDs(command, arguments);
     },
     commandButtons},
    {"delete", "delete these notifications and their buttons", Access::writes, "", addIDs, commandDelete},
    {"delete-kind", "delete every notification of a kind with its buttons", Access::writes, "",
     [](CLI::App& command, Arguments& arguments) {
         command.add_option("KIND", arguments.kind, kindHelp)->required()->type_name("KIND");
     },
     commandDeleteKind},
    {"reset", "delete every notification and button", Access::writes, "",
     [](CLI::App& command, Arguments& arguments) {
         command.add_flag("--yes", arguments.yes, "do not ask, also when standard input is a terminal");
     },
     commandReset},
    {"contains-version", "print whether a notification of any kind has this version", Access::reads,
     "print {\"contains\": true|false}",
     [](CLI::App& command, Arguments& arguments) {
         command.add_option("VERSION", arguments.text, "exact version text")->required()->type_name("TEXT");
     },
     commandContainsVersion},
    {"contains", "print whether a notification like this is stored", Access::reads, "print {\"contains\": true|false}",
     [](CLI::App& command, Arguments& arguments) {
         command.add_option("--kind", arguments.kind, kindHelp)->required()->type_name("KIND");
         command.add_option("--customer", arguments.customer, "customer id")->required()->type_name("TEXT");
         command.add_option("--app-id", arguments.appID, "app id")->type_name("N");
         command.add_option("--version", arguments.versionFilter, "version text")->type_name("TEXT");
     },
     commandContains},
    {"watch", "print one line per databaseUpdatedNotification heard, from any database of the user", Access::none, "",
     [](CLI::App& command, Arguments& arguments) {
         command.add_option("--count", arguments.count, "exit 0 after this many notices")->type_name("N");
         command
             .add_option("--timeout", arguments.timeout, "exit 1 after this many seconds unless --count was reached")
             ->type_name("SECONDS");
     },
     commandWatch},
}};

const std::array<HelpNote, 9> notes{{
    {"EXIT STATUS",
     "0 success (and \"true\"); 1 \"false\", an id that a command names and the database does not hold, a check "
     "that finds something wrong, a watch that timed out or a reset not confirmed; 2 a usage or input error, also "
     "a command that writes under --read-only; 3 the database cannot be used: missing (without --create), not an "
     "SQLite database, not a notification database, or not writable for a command that writes (for watch: no "
     "session bus); 4 the store reported a failure while the command ran, or the file shows that a change did "
     "not land: the failure is on standard error and nothing on standard output is an answer."},
    {"DATABASE",
     "Without --database the tool works on the user's NotificationDatabase.sqlite below $XDG_DATA_HOME (else "
     "~/.local/share) in Vantro/Default/Databases, which the first command that writes creates. A --database "
     "file must exist: only --create makes a new one (and its folders), so a mistyped path creates nothing. A "
     "file that holds other tables and no table \"notification\" belongs to another program: every command "
     "refuses it and leaves it as it is. Commands that only read open the file read-only: they create nothing "
     "and answer while another process writes. Commands that write say what they changed (\"2 marked read, 1 "
     "not found: 9\"), check the file afterwards, and post their change notices before they exit. reset asks "
     "first when standard input is a terminal, unless --yes. Ids are given as words, commas or both (\"7 8\", "
     "\"7,8\")."},
    {"CHECK",
     "check reads the file and changes nothing: SQLite's integrity and foreign-key checks, the journal mode, the "
     "tables, foreign key and index against the ones the store creates (each difference named), every row the "
     "store cannot read with its id and the reason, buttons that point at no stored notification, notifications "
     "with more than one button, and per customer the count, the oldest and newest date and what the next prune "
     "removes (over 100, or 30 days old or older). Its last line is \"FILE: sound\" or \"FILE: not sound: "
     "WHAT\", with status 0 or 1; --json gives the same as one object."},
    {"LIST",
     "list filters the notifications the store reads: --ids, --status, --kind, --customer (exact text), --since "
     "(a date in UTC, \"2099-01-01\" or \"2099-01-01 10:00\", or RFC 3339 with a zone) and --limit, which keeps "
     "the newest N."},
    {"JSON",
     "One object per notification: {\"notification\": {...}, \"notificationButton\": {...} | null}, keyed by "
     "field name, absent fields null. Output writes enumerations as integers and dates as UTC text "
     "\"2024-03-05 17:04:09.250\"; input also takes case names in any letter case, RFC 3339 dates with a zone "
     "(\"2026-11-01T12:00:00+02:00\") and seconds since 1970. list --json prints what receive takes back."},
    {"EXAMPLES",
     "The unread notifications of one customer since November, newest first:\n"
     "  notificationdb list --customer c-1 --status new --since 2026-11-01 --limit 20\n\n"
     "Examine a database file that a user sent, then read it:\n"
     "  notificationdb --database ./NotificationDatabase.sqlite check\n"
     "  notificationdb --database ./NotificationDatabase.sqlite list --json > notifications.json\n\n"
     "Start a new database elsewhere and fill it from that JSON:\n"
     "  notificationdb --database /tmp/new.sqlite --create receive notifications.json\n\n"
     "Mark two notifications read and wait for the change notice in another terminal:\n"
     "  notificationdb watch --count 1 --timeout 30\n"
     "  notificationdb mark --status read 7,8",
     true},
    {"ENVIRONMENT",
     "XDG_DATA_HOME, HOME: where the user's database lies (see DATABASE). DBUS_SESSION_BUS_ADDRESS: the session "
     "bus on which commands that write post databaseUpdatedNotification and watch listens for it.",
     true},
    {"FILES",
     "The user's database (~/.local/share in place of an unset $XDG_DATA_HOME), with SQLite's -wal and -shm files "
     "beside it:\n"
     "  $XDG_DATA_HOME/Vantro/Default/Databases/NotificationDatabase.sqlite",
     true},
    {"SEE ALSO", "sqlite3(1), dbus-monitor(1)", true},
}};

std::string commandNames() {
    std::string names;
    for (const auto& command : commands) names += (names.empty() ? "" : ", ") + std::string(command.name);
    return names;
}

std::string versionText() {
    std::string text(reinterpret_cast<const char*>(NotificationDatabaseVersionString));
    if (text.starts_with("@(#)")) text.erase(0, 4);
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return "notificationdb " NOTIFICATIONDB_VERSION_STRING " (" + text + ")";
}

std::string valueWords(std::string_view typeName) {
    if (typeName == "KIND") return caseNames<NotificationKind>(" ");
    if (typeName == "STATUS") return caseNames<NotificationStatus>(" ");
    return {};
}

// CLI11's parse errors in the tool's words. `arguments` are the words after the program name.
std::string describeParseError(const CLI::App& app, const CLI::ParseError& error,
                               const std::vector<std::string>& arguments) {
    const auto parsed = app.get_subcommands();
    const CLI::App* command = parsed.empty() ? nullptr : parsed.front();
    const auto remaining = app.remaining(true);
    if (command == nullptr && !remaining.empty() && !remaining.front().starts_with("-")) {
        return "unknown command '" + remaining.front() + "'; commands: " + commandNames();
    }
    const std::string name = command != nullptr ? command->get_name() : "";
    const std::string where = name.empty() ? "" : name + ": ";
    const std::string hint = "; see 'notificationdb " + (name.empty() ? "" : name + " ") + "--help'";
    if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr && command != nullptr) {
        std::string missing;
        for (const CLI::Option* option : command->get_options()) {
            if (option->get_required() && option->count() == 0)
                missing += (missing.empty() ? "" : ", ") + option->get_name();
        }
        return where + "missing " + missing + hint;
    }
    if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr && !remaining.empty()) {
        return where + (remaining.front().starts_with("-") ? "unknown option '" : "unexpected argument '") +
               remaining.front() + "'" + hint;
    }
    if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr) {
        // An option that takes a value was given last, or right before another option.
        for (std::size_t i = 0; i < arguments.size(); ++i) {
            const CLI::App& scope = command != nullptr ? *command : app;
            const CLI::Option* option = scope.get_option_no_throw(arguments[i]);
            if (option == nullptr) option = app.get_option_no_throw(arguments[i]);
            if (option != nullptr && option->get_items_expected_min() > 0 &&
                (i + 1 == arguments.size() || arguments[i + 1].starts_with("--"))) {
                return where + arguments[i] + " needs a value" + hint;
            }
        }
    }
    return where + "cannot read the arguments" + hint;
}

void writeFile(const std::string& path, const std::function<void(std::ostream&)>& write) {
    std::ofstream out(path, std::ios::binary);
    if (out) write(out);
    if (!out.flush()) throw CommandError(unavailable, "cannot write " + path + ": " + std::strerror(errno));
}

// Refuses option pairs that cannot mean anything.
void checkOptions(const Command& command, const Arguments& arguments) {
    const std::string name(command.name);
    if (command.access == Access::writes && arguments.readOnly) {
        throw CommandError(usageError, name + " writes to the database; drop --read-only");
    }
    if (arguments.create && arguments.readOnly) throw CommandError(usageError, "--create writes; drop --read-only");
    if (arguments.create && (command.access == Access::none || command.access == Access::examines)) {
        throw CommandError(usageError, name + ": --create does not apply; " + name + " creates no database");
    }
    if (name == "watch" && arguments.database) {
        throw CommandError(usageError,
                           "watch: --database does not apply: the change notice names no file, so watch "
                           "hears the notices of every database of the user");
    }
}

int execute(int argc, char** argv, StoreLog& log) {
    Arguments arguments;
    CLI::App app("inspect and change a notification database through the NotificationDatabase library",
                 "notificationdb");
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.get_formatter()->label("Subcommands", "Commands");
    app.require_subcommand(0, 1);
    app.fallthrough();
    app.add_option("--database", arguments.database, "database file (default: the user's NotificationDatabase.sqlite)")
        ->type_name("PATH");
    app.add_flag("--create", arguments.create,
                 "make a missing database file and its folders (without it, a --database file must exist)");
    app.add_flag("--read-only", arguments.readOnly, "refuse commands that write (commands that read never write)");
    app.add_flag("--version", arguments.version, "print the version and exit");
    app.add_option("--generate-man", arguments.manualPageFile)->group("");
    app.add_option("--generate-completion", arguments.completionFile)->group("");

    for (const auto& command : commands) {
        auto* sub = app.add_subcommand(std::string(command.name), std::string(command.summary));
        command.declare(*sub, arguments);
        if (!command.json.empty()) sub->add_flag("--json", arguments.json, std::string(command.json));
        sub->footer([&app] { return globalOptionsHelp(app); });
    }
    app.footer(notesHelp(notes));

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);  // --help
        throw CommandError(usageError, describeParseError(app, error, {argv + std::min(argc, 1), argv + argc}));
    }
    if (arguments.manualPageFile || arguments.completionFile) {
        if (arguments.manualPageFile) {
            writeFile(*arguments.manualPageFile, [&](auto& out) { writeManualPage(out, app, versionText(), notes); });
        }
        if (arguments.completionFile) {
            writeFile(*arguments.completionFile, [&](auto& out) { writeBashCompletion(out, app, valueWords); });
        }
        return success;
    }
    if (arguments.version) {
        std::cout << versionText() << '\n';
        return success;
    }
    const auto parsed = app.get_subcommands();
    if (parsed.empty()) throw CommandError(usageError, "no command given; commands: " + commandNames());
    const Command& command = *std::find_if(commands.begin(), commands.end(), [&](const Command& entry) {
        return entry.name == parsed.front()->get_name();
    });
    checkOptions(command, arguments);
    Context context(command, arguments, *parsed.front(), log);
    if (command.access != Access::none) log.setDatabase(context.path());
    try {
        return command.run(context);
    } catch (const DatabaseError& error) {
        // The tool's own look at the file failed.
        throw CommandError(storeFailed,
                           context.name() + ": " + context.path() + ": " + LogSanitizer::sanitizeError(error));
    }
}

int run(int argc, char** argv) {
    const auto log = std::make_shared<StoreLog>();
    Logger::module()->setDestinations({log});
    int status = success;
    try {
        status = execute(argc, argv, *log);
    } catch (const CommandError& error) {
        std::cerr << "notificationdb: " << error.what() << '\n';
        status = error.status();
    } catch (const std::exception& error) {
        // Only what no command foresaw (memory, say); every expected failure is a CommandError.
        std::cerr << "notificationdb: " << error.what() << '\n';
        status = unavailable;
    }
    // Other processes hear of the changes now rather than never: the main queue that would post
    // them a second later does not run again. A command that failed may have changed something.
    NotificationDatabaseImpl::postPendingNotices();
    return status;
}

}  // namespace
}  // namespace notificationdb::tool

int main(int argc, char** argv) {
    return notificationdb::tool::run(argc, argv);
}
