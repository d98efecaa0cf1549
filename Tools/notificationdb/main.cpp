// notificationdb: inspect and change the notification database of the current user (or any
// database file) from the command line, through the library's own store and updater.
//
// One table lists the commands; it builds the command line, and the help, the manual page and
// the completion script are all written from that command line.

#include "Enumerations.hpp"
#include "HelpFiles.hpp"
#include "JsonCoding.hpp"
#include "ListFormatting.hpp"

#include <NotificationDatabase/Extensions/NotificationName.hpp>
#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/NotificationDatabaseConfig.hpp>
#include <NotificationDatabase/NotificationUpdater/NotificationUpdaterImpl.hpp>
#include <NotificationDatabase/Platform/DistributedNotificationCenter.hpp>
#include <NotificationDatabase/Platform/LogSanitizer.hpp>
#include <NotificationDatabase/Platform/Logger.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>
#include <NotificationDatabase/Version.hpp>

#include <CLI/CLI.hpp>

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
    answeredFalse = 1,  // also: `watch` timed out, `reset` was not confirmed
    usageError = 2,     // bad arguments or input, or a write under --read-only
    unavailable = 3,    // the database (or, for `watch`, the session bus) could not be opened
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
    std::optional<std::string> count;
    std::optional<std::string> timeout;
};

// What a command does with the database.
enum class Access { none, reads, writes };

class Context;

struct Command {
    std::string_view name;
    std::string_view summary;
    Access access;
    std::string_view json;  // help of its --json flag; empty: the command has none
    void (*declare)(CLI::App& command, Arguments& arguments);
    int (*run)(Context& context);
};

// The library's messages in the tool's style.
class ToolLogDestination final : public LogDestination {
public:
    void write(std::string_view /*loggerPath*/, LogLevel level, std::string_view message) override {
        const std::string prefix = level == LogLevel::error ? "" : std::string(logLevelName(level)) + ": ";
        std::cerr << "notificationdb: " + prefix + std::string(message) + "\n" << std::flush;
    }
};

std::filesystem::path databasePath(const Arguments& arguments) {
    if (arguments.database) return *arguments.database;
    return NotificationDatabaseConfig::createDatabaseURl("NotificationDatabase.sqlite");
}

// The store as the command needs it: a command that reads opens an existing file read-only and
// so never creates a file or a folder and never waits for a writer; one that writes opens it
// read-write, creating it if need be.
std::shared_ptr<NotificationDatabaseImpl> openStore(const Arguments& arguments, Access access) {
    const auto path = databasePath(arguments);
    const bool reads = access == Access::reads;
    std::error_code error;
    if (reads && !std::filesystem::exists(path, error)) {
        throw CommandError(unavailable,
                           "cannot open " + path.string() + ": " + (error ? error.message() : std::strerror(ENOENT)));
    }
    try {
        if (!arguments.database) {
            // The file exists when reading, so building the configuration creates no folder.
            return NotificationDatabaseImpl::create(reads ? NotificationDatabaseConfig::readOnly()
                                                          : NotificationDatabaseConfig::default_());
        }
        Configuration configuration;
        configuration.readOnly = reads;
        configuration.busyMode = BusyMode::timeout(NotificationDatabaseConfig::busyTimeoutSeconds);
        configuration.persistentReadOnlyConnections = reads;
        return NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, configuration));
    } catch (const std::exception& failure) {
        throw CommandError(unavailable, "cannot open " + path.string() + ": " + LogSanitizer::sanitizeError(failure));
    }
}

class Context {
public:
    Context(const Command& command, const Arguments& arguments, const CLI::App& app)
        : arguments(arguments), command_(command), app_(app) {}

    const Arguments& arguments;

    bool given(const std::string& option) const { return app_.get_option(option)->count() > 0; }
    // Opened on first use, after the command has checked its input.
    const std::shared_ptr<NotificationDatabaseImpl>& store() {
        if (!store_) store_ = openStore(arguments, command_.access);
        return store_;
    }
    // Prints `text`, or under --json the object {"key": value}.
    void answer(const std::string& key, const Json& value, const std::string& text) const {
        std::cout << (arguments.json ? Json{{key, value}}.dump(2) : text) << '\n';
    }

private:
    const Command& command_;
    const CLI::App& app_;
    std::shared_ptr<NotificationDatabaseImpl> store_;
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
    NotificationUpdaterImpl(store).receive(batch);
    std::cout << "received " << batch.size() << (batch.size() == 1 ? " entry" : " entries")
              << "; stored notifications: " << before << " before, " << store->notificationsCount() << " after\n";
    return success;
}

int commandCleanUp(Context& context) {
    const auto& store = context.store();
    const auto before = store->notificationsCount();
    NotificationUpdaterImpl(store).cleanUp();
    std::cout << "stored notifications: " << before << " before, " << store->notificationsCount() << " after\n";
    return success;
}

int commandList(Context& context) {
    const auto ids = context.given("--ids") ? std::optional(parseIDs(context.arguments.ids)) : std::nullopt;
    const auto infos = context.store()->fetchNotifications(ids);
    if (context.arguments.json) {
        std::cout << toJson(infos).dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
    } else {
        printNotificationList(std::cout, infos);
    }
    return success;
}

int commandCount(Context& context) {
    const auto count = context.store()->notificationsCount();
    context.answer("count", count, std::to_string(count));
    return success;
}

int commandMark(Context& context) {
    const auto status = parseEnumeration<NotificationStatus>(context.arguments.status, "NotificationStatus");
    const auto ids = parseIDs(context.arguments.ids);
    NotificationUpdaterImpl(context.store()).updateStatus(ids, status);
    return success;
}

int commandButtons(Context& context) {
    if (context.arguments.show == context.arguments.hide) {
        throw CommandError(usageError, "buttons: give one of --show and --hide");
    }
    const auto ids = parseIDs(context.arguments.ids);
    NotificationUpdaterImpl(context.store()).updateButtonVisibility(ids, context.arguments.show);
    return success;
}

int commandDelete(Context& context) {
    // Deletion goes by notification id and the buttons follow through the foreign key, so a bare
    // record carrying the id is enough; no read is needed, and rows that no longer read still go.
    NotificationModelInfoSet doomed;
    for (const auto id : parseIDs(context.arguments.ids)) {
        doomed.emplace(NotificationModel(id, std::nullopt, Timestamp{}, {}, {}, std::nullopt, std::nullopt,
                                         std::nullopt, false, std::nullopt, NotificationStatus::new_,
                                         NotificationKind::default_));
    }
    context.store()->deleteNotifications(doomed);
    return success;
}

int commandDeleteKind(Context& context) {
    context.store()->deleteAllNotifications(
        parseEnumeration<NotificationKind>(context.arguments.kind, "NotificationKind"));
    return success;
}

int commandReset(Context& context) {
    if (!context.arguments.yes && ::isatty(STDIN_FILENO) != 0) {
        std::cerr << "notificationdb: delete every notification in " << databasePath(context.arguments).string()
                  << "? [y/N] " << std::flush;
        std::string reply;
        std::getline(std::cin, reply);
        if (reply != "y" && reply != "Y" && reply != "yes") {
            throw CommandError(answeredFalse, "reset not confirmed; nothing deleted");
        }
    }
    context.store()->deleteAll();
    return success;
}

int answerWhether(Context& context, bool value) {
    context.answer("contains", value, value ? "true" : "false");
    return value ? success : answeredFalse;
}

int commandContainsVersion(Context& context) {
    return answerWhether(context, context.store()->containsVantro(context.arguments.text));
}

int commandContains(Context& context) {
    const auto& arguments = context.arguments;
    const auto kind = parseEnumeration<NotificationKind>(arguments.kind, "NotificationKind");
    const auto appID = arguments.appID ? std::optional(parseInteger(*arguments.appID, "an app id")) : std::nullopt;
    return answerWhether(
        context, context.store()->containsNotification(kind, arguments.customer, appID, arguments.versionFilter));
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
    if (count && heard < *count) {
        throw CommandError(answeredFalse, "timed out after hearing " + std::to_string(heard) + " of " +
                                              std::to_string(*count) + " notices");
    }
    return success;
}

// --- the command table -------------------------------------------------------------------------

void addIDs(CLI::App& command, Arguments& arguments) {
    command.add_option("ID", arguments.ids, "notification ids")->required()->type_name("ID");
}

const std::string kindHelp = validValues<NotificationKind>();
const std::string statusHelp = validValues<NotificationStatus>();

const std::array<Command, 13> commands{{
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
         command.add_option("--ids", arguments.ids, "only these notification ids (comma-separated)")
             ->delimiter(',')
             ->expected(0, -1)
             ->type_name("ID");
     },
     commandList},
    {"count", "print the number of stored notifications", Access::reads, "print {\"count\": N}",
     [](CLI::App&, Arguments&) {}, commandCount},
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
    {"watch", "print one line per databaseUpdatedNotification heard from any process", Access::none, "",
     [](CLI::App& command, Arguments& arguments) {
         command.add_option("--count", arguments.count, "exit 0 after this many notices")->type_name("N");
         command
             .add_option("--timeout", arguments.timeout, "exit 1 after this many seconds unless --count was reached")
             ->type_name("SECONDS");
     },
     commandWatch},
}};

const std::array<HelpNote, 3> notes{{
    {"EXIT STATUS",
     "0 success (and \"true\"); 1 \"false\", a watch that timed out or a reset not confirmed; 2 a usage or input "
     "error, also a command that writes under --read-only; 3 the database (for watch: the session bus) could "
     "not be opened."},
    {"DATABASE",
     "Without --database the tool works on the user's NotificationDatabase.sqlite below $XDG_DATA_HOME (else "
     "~/.local/share) in Vantro/Default/Databases. Commands that only read open an existing file read-only: they "
     "create no file or folder and answer while another process writes. Commands that write create the file and "
     "its folders when missing and post their change notices before they exit. reset asks first when standard "
     "input is a terminal, unless --yes."},
    {"JSON",
     "One object per notification: {\"notification\": {...}, \"notificationButton\": {...} | null}, keyed by "
     "field name, absent fields null. Output writes enumerations as integers and dates as UTC text "
     "\"2024-03-05 17:04:09.250\"; input also takes case names in any letter case, RFC 3339 dates with a zone "
     "(\"2026-11-01T12:00:00+02:00\") and seconds since 1970. list --json prints what receive takes back."},
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
    return "notificationdb " + std::to_string(std::lround(NotificationDatabaseVersionNumber)) + " (" + text + ")";
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

int run(int argc, char** argv) {
    Logger::module()->setDestinations({std::make_shared<ToolLogDestination>()});
    Arguments arguments;
    CLI::App app("inspect and change a notification database through the NotificationDatabase library",
                 "notificationdb");
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.get_formatter()->label("Subcommands", "Commands");
    app.require_subcommand(0, 1);
    app.fallthrough();
    app.add_option("--database", arguments.database, "database file (default: the user's NotificationDatabase.sqlite)")
        ->type_name("PATH");
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
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            if (error.get_exit_code() == 0) return app.exit(error);  // --help
            throw CommandError(usageError, describeParseError(app, error, {argv + std::min(argc, 1), argv + argc}));
        }
        if (arguments.manualPageFile || arguments.completionFile) {
            if (arguments.manualPageFile) {
                writeFile(*arguments.manualPageFile,
                          [&](auto& out) { writeManualPage(out, app, versionText(), notes); });
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
        if (command.access == Access::writes && arguments.readOnly) {
            throw CommandError(usageError, std::string(command.name) + " writes to the database; drop --read-only");
        }
        Context context(command, arguments, *parsed.front());
        const int status = command.run(context);
        // Other processes hear of the changes now rather than never: the main queue that would
        // post them a second later does not run again.
        NotificationDatabaseImpl::postPendingNotices();
        return status;
    } catch (const CommandError& error) {
        std::cerr << "notificationdb: " << error.what() << '\n';
        return error.status();
    } catch (const std::exception& error) {
        // Only what no command foresaw (memory, say); every expected failure is a CommandError.
        std::cerr << "notificationdb: " << error.what() << '\n';
        return unavailable;
    }
}

}  // namespace
}  // namespace notificationdb::tool

int main(int argc, char** argv) {
    return notificationdb::tool::run(argc, argv);
}
