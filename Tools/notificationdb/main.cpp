// notificationdb: inspect and change the notification database of the current user (or any
// database file) from the command line, through the library's own store and updater.

#include "JsonCoding.hpp"
#include "ListFormatting.hpp"

#include <NotificationDatabase/Extensions/NotificationName.hpp>
#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/NotificationDatabaseConfig.hpp>
#include <NotificationDatabase/NotificationUpdater/NotificationUpdaterImpl.hpp>
#include <NotificationDatabase/Platform/DistributedNotificationCenter.hpp>
#include <NotificationDatabase/Platform/LogSanitizer.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include <CLI/CLI.hpp>

#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace notificationdb::tool {
namespace {

enum ExitStatus : int {
    success = 0,
    answeredFalse = 1,  // also: `watch` timed out before hearing enough notices
    usageError = 2,     // bad arguments or input
    unavailable = 3,    // the database (or, for `watch`, the session bus) could not be opened
};

// A failure that ends the command with `status` after printing `what()` on stderr.
class CommandError : public std::runtime_error {
public:
    CommandError(ExitStatus status, const std::string& message) : std::runtime_error(message), status_(status) {}
    ExitStatus status() const noexcept { return status_; }

private:
    ExitStatus status_;
};

struct GlobalOptions {
    std::optional<std::string> database;
    bool readOnly = false;
};

NotificationDatabaseConfig makeConfig(const GlobalOptions& options) {
    if (!options.database)
        return options.readOnly ? NotificationDatabaseConfig::readOnly() : NotificationDatabaseConfig::default_();
    // The same connection options as the ready-made configurations, on another file.
    Configuration configuration;
    configuration.readOnly = options.readOnly;
    configuration.busyMode = BusyMode::timeout(2.0);
    configuration.persistentReadOnlyConnections = options.readOnly;
    return {std::filesystem::path(*options.database), configuration};
}

std::shared_ptr<NotificationDatabaseImpl> openStore(const GlobalOptions& options) {
    const auto config = makeConfig(options);
    try {
        return NotificationDatabaseImpl::create(config);
    } catch (const std::exception& error) {
        throw CommandError(unavailable, "cannot open the database " + config.storageURL().string() + ": " +
                                            LogSanitizer::sanitizeError(error));
    }
}

// Commands that write refuse a read-only database up front instead of failing row by row.
void requireWritable(const GlobalOptions& options, std::string_view command) {
    if (options.readOnly) {
        throw CommandError(usageError, "'" + std::string(command) + "' writes to the database; drop --read-only");
    }
}

// The store posts its change notices from the main queue about a second after each write; a
// writing command stays until they are out, so that other processes hear of its changes.
void deliverScheduledNotices() {
    MainQueue::main().runUntilIdle();
}

template <class Enumeration>
Enumeration parseEnumeration(const std::string& text, std::string_view typeName) {
    if (auto value = fromCaseName<Enumeration>(text)) return *value;
    std::int64_t raw = 0;
    const auto* end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, raw);
    if (error == std::errc() && stop == end) {
        if (auto value = fromRawValue<Enumeration>(raw)) return *value;
    }
    throw CommandError(usageError, "'" + text + "' is not a " + std::string(typeName));
}

std::string readInput(const std::string& source) {
    std::FILE* file = source == "-" ? stdin : std::fopen(source.c_str(), "rb");
    if (file == nullptr) throw CommandError(usageError, "cannot read " + source);
    std::string text;
    char buffer[65536];
    std::size_t count = 0;
    while ((count = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
        text.append(buffer, count);
        if (text.size() > maximumInputSize) break;  // parseBatch reports the size
    }
    const bool failed = std::ferror(file) != 0;
    if (file != stdin) std::fclose(file);
    if (failed) throw CommandError(usageError, "cannot read " + source);
    return text;
}

NotificationIDs toIDs(const std::vector<std::int64_t>& ids) {
    return {ids.begin(), ids.end()};
}

std::string dump(const Json& json) {
    return json.dump(2, ' ', false, Json::error_handler_t::replace);
}

// --- commands --------------------------------------------------------------------------------

int commandPath(const GlobalOptions& options) {
    std::cout << makeConfig(options).storageURL().string() << '\n';
    return success;
}

int commandReceive(const GlobalOptions& options, const std::string& source) {
    requireWritable(options, "receive");
    std::vector<NotificationModelInfo> batch;
    try {
        // The whole batch is checked before the database is touched: a bad entry writes nothing.
        batch = parseBatch(readInput(source));
    } catch (const JsonInputError& error) {
        throw CommandError(usageError, error.what());
    }
    auto store = openStore(options);
    const auto before = store->notificationsCount();
    NotificationUpdaterImpl updater(store);
    updater.receive(batch);
    std::cout << "received " << batch.size() << (batch.size() == 1 ? " entry" : " entries")
              << "; stored notifications: " << before << " before, " << store->notificationsCount() << " after\n";
    deliverScheduledNotices();
    return success;
}

int commandCleanUp(const GlobalOptions& options) {
    requireWritable(options, "cleanup");
    auto store = openStore(options);
    const auto before = store->notificationsCount();
    NotificationUpdaterImpl(store).cleanUp();
    std::cout << "stored notifications: " << before << " before, " << store->notificationsCount() << " after\n";
    deliverScheduledNotices();
    return success;
}

int commandList(const GlobalOptions& options, const std::vector<std::int64_t>& ids, bool idsGiven, bool json) {
    auto store = openStore(options);
    const auto infos = store->fetchNotifications(idsGiven ? std::optional(toIDs(ids)) : std::nullopt);
    if (json) {
        std::cout << dump(toJson(infos)) << '\n';
    } else {
        printNotificationList(std::cout, infos);
    }
    return success;
}

int commandCount(const GlobalOptions& options) {
    std::cout << openStore(options)->notificationsCount() << '\n';
    return success;
}

int commandMark(const GlobalOptions& options, const std::string& status, const std::vector<std::int64_t>& ids) {
    requireWritable(options, "mark");
    const auto parsed = parseEnumeration<NotificationStatus>(status, "NotificationStatus");
    NotificationUpdaterImpl(openStore(options)).updateStatus(toIDs(ids), parsed);
    deliverScheduledNotices();
    return success;
}

int commandButtons(const GlobalOptions& options, bool show, bool hide, const std::vector<std::int64_t>& ids) {
    requireWritable(options, "buttons");
    if (show == hide) throw CommandError(usageError, "buttons: give exactly one of --show and --hide");
    NotificationUpdaterImpl(openStore(options)).updateButtonVisibility(toIDs(ids), show);
    deliverScheduledNotices();
    return success;
}

int commandDelete(const GlobalOptions& options, const std::vector<std::int64_t>& ids) {
    requireWritable(options, "delete");
    // Deletion goes by notification id and the buttons follow through the foreign key, so a bare
    // record carrying the id is enough; no read is needed, and rows that no longer read still go.
    NotificationModelInfoSet doomed;
    for (auto id : toIDs(ids)) {
        doomed.emplace(NotificationModel(id, std::nullopt, Timestamp{}, {}, {}, std::nullopt, std::nullopt,
                                         std::nullopt, false, std::nullopt, NotificationStatus::new_,
                                         NotificationKind::default_));
    }
    auto store = openStore(options);
    store->deleteNotifications(doomed);
    deliverScheduledNotices();
    return success;
}

int commandDeleteKind(const GlobalOptions& options, const std::string& kind) {
    requireWritable(options, "delete-kind");
    const auto parsed = parseEnumeration<NotificationKind>(kind, "NotificationKind");
    openStore(options)->deleteAllNotifications(parsed);
    deliverScheduledNotices();
    return success;
}

int commandReset(const GlobalOptions& options) {
    requireWritable(options, "reset");
    openStore(options)->deleteAll();
    deliverScheduledNotices();
    return success;
}

int answer(bool value) {
    std::cout << (value ? "true" : "false") << '\n';
    return value ? success : answeredFalse;
}

int commandContainsVersion(const GlobalOptions& options, const std::string& version) {
    return answer(openStore(options)->containsVantro(version));
}

int commandContains(const GlobalOptions& options, const std::string& kind, const std::string& customer,
                    const std::optional<std::int64_t>& appID, const std::optional<std::string>& version) {
    const auto parsed = parseEnumeration<NotificationKind>(kind, "NotificationKind");
    return answer(openStore(options)->containsNotification(parsed, customer, appID, version));
}

int commandWatch(const std::optional<std::size_t>& count, const std::optional<double>& timeout) {
    auto& queue = MainQueue::main();
    std::size_t heard = 0;
    auto token =
        DistributedNotificationCenter::defaultCenter()->addObserver(databaseUpdated(), [&](const std::string& name) {
            ++heard;
            std::cout << formatDateText(std::chrono::system_clock::now()).value_or("?") << " UTC " << name << std::endl;
            if (count && heard >= *count) queue.stop();
        });
    if (!token) throw CommandError(unavailable, "cannot listen on the D-Bus session bus");
    // Tests and scripts wait for this line before they start writing.
    std::cerr << "watching " << databaseUpdated() << std::endl;

    if (timeout) {
        queue.runFor(std::chrono::duration_cast<MainQueue::Clock::duration>(std::chrono::duration<double>(*timeout)));
    } else {
        queue.run();
    }
    token.reset();
    if (count && heard < *count) {
        std::cerr << "notificationdb: timed out after hearing " << heard << " of " << *count << " notices\n";
        return answeredFalse;
    }
    return success;
}

// --- command line ----------------------------------------------------------------------------

int run(int argc, char** argv) {
    CLI::App app("Inspect and change a notification database through the NotificationDatabase library.",
                 "notificationdb");
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(
        "Exit status: 0 success (and \"true\"), 1 \"false\" or watch timed out, 2 usage or input "
        "error,\n"
        "3 the database (for watch: the session bus) could not be opened.\n"
        "JSON entries: {\"notification\": {...}, \"notificationButton\": {...} | null}, keys are "
        "field names.");

    GlobalOptions options;
    app.add_option("--database", options.database, "database file (default: the user's NotificationDatabase.sqlite)");
    app.add_flag("--read-only", options.readOnly, "open the database read-only; commands that write are refused");

    app.add_subcommand("path", "print the database file's path");

    std::string receiveSource = "-";
    auto* receive = app.add_subcommand("receive",
                                       "take a JSON array of notifications through the updater "
                                       "(save each, then prune)");
    receive->add_option("FILE", receiveSource, "file to read, or - for standard input")->capture_default_str();

    app.add_subcommand("cleanup", "prune: drop notifications 30 days old or older and all but 100 per customer");

    std::vector<std::int64_t> listIDs;
    bool listJSON = false;
    auto* list = app.add_subcommand("list", "the stored notifications with their buttons, newest first");
    auto* listIDsOption = list->add_option("--ids", listIDs, "only these notification ids (comma-separated)")
                              ->delimiter(',')
                              ->expected(0, -1);
    list->add_flag("--json", listJSON, "print a JSON array (accepted back by 'receive')");

    app.add_subcommand("count", "print the number of stored notifications");

    std::string markStatus;
    std::vector<std::int64_t> markIDs;
    auto* mark = app.add_subcommand("mark", "set the status of notifications");
    mark->add_option("--status", markStatus, "new, shown or read (or 0, 1, 2)")->required();
    mark->add_option("ID", markIDs, "notification ids")->required();

    bool buttonsShow = false;
    bool buttonsHide = false;
    std::vector<std::int64_t> buttonsIDs;
    auto* buttons = app.add_subcommand("buttons", "show or hide the buttons of notifications");
    auto* showFlag = buttons->add_flag("--show", buttonsShow, "show the buttons");
    buttons->add_flag("--hide", buttonsHide, "hide the buttons")->excludes(showFlag);
    buttons->add_option("ID", buttonsIDs, "notification ids")->required();

    std::vector<std::int64_t> deleteIDs;
    auto* remove = app.add_subcommand("delete", "delete these notifications and their buttons");
    remove->add_option("ID", deleteIDs, "notification ids")->required();

    std::string deleteKind;
    auto* removeKind = app.add_subcommand("delete-kind", "delete every notification of a kind with its buttons");
    removeKind->add_option("KIND", deleteKind, "default, newApp, appUpdate, vantroUpdate, ai (or 0...4)")->required();

    app.add_subcommand("reset", "delete every notification and button");

    std::string containsVersionText;
    auto* containsVersion =
        app.add_subcommand("contains-version", "print whether a notification of any kind has this version");
    containsVersion->add_option("VERSION", containsVersionText, "exact version text")->required();

    std::string containsKind;
    std::string containsCustomer;
    std::optional<std::int64_t> containsAppID;
    std::optional<std::string> containsVersionOption;
    auto* contains = app.add_subcommand("contains", "print whether a notification like this is stored");
    contains->add_option("--kind", containsKind, "default, newApp, appUpdate, vantroUpdate, ai (or 0...4)")->required();
    contains->add_option("--customer", containsCustomer, "customer id")->required();
    contains->add_option("--app-id", containsAppID, "app id");
    contains->add_option("--version", containsVersionOption, "version text");

    std::optional<std::size_t> watchCount;
    std::optional<double> watchTimeout;
    auto* watch = app.add_subcommand("watch", "print one line per databaseUpdatedNotification heard from any process");
    watch->add_option("--count", watchCount, "exit 0 after this many notices")->check(CLI::PositiveNumber);
    watch->add_option("--timeout", watchTimeout, "exit 1 after this many seconds unless --count was reached")
        ->check(CLI::NonNegativeNumber);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? success : usageError;
    }

    try {
        if (app.got_subcommand("path")) return commandPath(options);
        if (app.got_subcommand(receive)) return commandReceive(options, receiveSource);
        if (app.got_subcommand("cleanup")) return commandCleanUp(options);
        if (app.got_subcommand(list)) return commandList(options, listIDs, listIDsOption->count() > 0, listJSON);
        if (app.got_subcommand("count")) return commandCount(options);
        if (app.got_subcommand(mark)) return commandMark(options, markStatus, markIDs);
        if (app.got_subcommand(buttons)) return commandButtons(options, buttonsShow, buttonsHide, buttonsIDs);
        if (app.got_subcommand(remove)) return commandDelete(options, deleteIDs);
        if (app.got_subcommand(removeKind)) return commandDeleteKind(options, deleteKind);
        if (app.got_subcommand("reset")) return commandReset(options);
        if (app.got_subcommand(containsVersion)) return commandContainsVersion(options, containsVersionText);
        if (app.got_subcommand(contains)) {
            return commandContains(options, containsKind, containsCustomer, containsAppID, containsVersionOption);
        }
        if (app.got_subcommand(watch)) return commandWatch(watchCount, watchTimeout);
    } catch (const CommandError& error) {
        std::cerr << "notificationdb: " << error.what() << '\n';
        return error.status();
    }
    return usageError;
}

}  // namespace
}  // namespace notificationdb::tool

int main(int argc, char** argv) {
    try {
        return notificationdb::tool::run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "notificationdb: " << error.what() << '\n';
        return notificationdb::tool::usageError;
    }
}
