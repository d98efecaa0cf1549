#include "Check.hpp"

#include "JsonCoding.hpp"
#include "SQLiteFile.hpp"

#include <NotificationDatabase/Database/Names.hpp>
#include <NotificationDatabase/Platform/LogSanitizer.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace notificationdb::tool {

namespace {

using IDs = std::vector<std::int64_t>;

struct Column {
    std::string_view name;
    std::string_view type;
    bool notNull;
};

// The tables as the store creates them; "id" is the AUTOINCREMENT primary key of both.
constexpr std::array<Column, 12> notificationColumns{{{"id", "INTEGER", false},
                                                      {"customerId", "TEXT", false},
                                                      {"createdDate", "DATETIME", true},
                                                      {"version", "TEXT", true},
                                                      {"analyticsTag", "TEXT", true},
                                                      {"title", "TEXT", false},
                                                      {"body", "TEXT", false},
                                                      {"bannerUrl", "TEXT", false},
                                                      {"isMarketing", "BOOLEAN", true},
                                                      {"appId", "INTEGER", false},
                                                      {"status", "INTEGER", true},
                                                      {"notificationKind", "INTEGER", true}}};
constexpr std::array<Column, 7> buttonColumns{{{"id", "INTEGER", false},
                                               {"buttonId", "TEXT", false},
                                               {"title", "TEXT", false},
                                               {"visible", "BOOLEAN", true},
                                               {"notificationId", "INTEGER", false},
                                               {"actionKind", "INTEGER", false},
                                               {"userAction", "BLOB", false}}};
constexpr std::string_view indexName = "notificationButton_on_notificationId";
// What the updater's prune keeps.
constexpr std::int64_t customerLimit = 100;
constexpr auto ageLimit = std::chrono::seconds(2'592'000);

struct Customer {
    std::optional<std::string> id;
    std::int64_t count = 0;
    Timestamp oldest, newest;
    std::int64_t old = 0;  // 30 days old or older
};

struct Report {
    std::vector<std::string> integrity;  // SQLite's lines: "ok" alone when sound
    std::vector<std::string> foreignKeys;
    std::string journalMode;
    std::vector<std::string> schema;  // differences from the store's tables
    std::vector<std::string> notes;   // worth knowing, not wrong
    std::optional<std::int64_t> notifications, buttons;
    std::vector<std::pair<std::int64_t, std::string>> unreadable;
    std::vector<std::pair<std::int64_t, std::optional<std::int64_t>>> orphans;
    std::vector<std::pair<std::int64_t, IDs>> crowded;
    std::vector<Customer> customers;
    std::map<std::string, std::string> notChecked;  // step: why it could not run
    bool rowsLookedAt = false;                      // false when the tables are not there to look at

    // The names of what is wrong; empty for a sound file.
    std::vector<std::string> problems() const {
        std::vector<std::string> names;
        const auto add = [&](bool wrong, const char* name) {
            if (wrong) names.emplace_back(name);
        };
        add(integrity != std::vector<std::string>{"ok"}, "integrity");
        add(!foreignKeys.empty(), "foreign keys");
        add(!schema.empty(), "schema");
        add(!unreadable.empty(), "unreadable rows");
        add(!orphans.empty(), "orphan buttons");
        add(!crowded.empty(), "second buttons");
        for (const auto& [step, reason] : notChecked) names.push_back(step + " not checked");
        return names;
    }
};

std::string inQuotes(std::string_view name) {
    std::string text(1, '"');
    text += name;
    text += '"';
    return text;
}

std::string joined(const IDs& ids) {
    std::string text;
    for (const auto id : ids) text += (text.empty() ? "" : ", ") + std::to_string(id);
    return text;
}

std::string plural(std::int64_t count, std::string_view noun) {
    return std::to_string(count) + " " + std::string(noun) + (count == 1 ? "" : "s");
}

template <class Step>
void run(Report& report, const std::string& name, Step step) {
    try {
        step();
    } catch (const std::exception& error) {
        report.notChecked.emplace(name, LogSanitizer::sanitizeError(error));
    }
}

// --- the tables against the store's ------------------------------------------------------------

// Returns whether the table is there at all.
bool compareColumns(SQLiteFile& file, std::string_view table, std::span<const Column> expected,
                    std::vector<std::string>& differences) {
    struct Found {
        std::string name, type;
        bool notNull, key, defaulted;
    };
    std::vector<Found> found;
    file.each(R"(SELECT name, type, "notnull", pk, dflt_value FROM pragma_table_info(?1))", {std::string(table)},
              [&](const SQLiteFile::Row& row) {
                  found.push_back({row.text(0).value_or(""), row.text(1).value_or(""), row.integer(2) != 0,
                                   row.integer(3) != 0, !row.isNull(4)});
              });
    const auto kind = file.texts(
        "SELECT type FROM sqlite_master WHERE name = ?1 COLLATE NOCASE AND type IN "
        "('table', 'view')",
        {std::string(table)});
    if (kind.empty()) {
        differences.push_back("table " + inQuotes(table) + " is missing");
        return false;
    }
    if (kind.front() != "table") differences.push_back(inQuotes(table) + " is a " + kind.front() + ", not a table");

    const auto column = [&](std::string_view name) { return std::string(table) + "." + std::string(name); };
    bool sameSet = found.size() == expected.size();
    for (const Column& want : expected) {
        const auto have = std::find_if(found.begin(), found.end(),
                                       [&](const Found& f) { return equalsIgnoringCase(f.name, want.name); });
        if (have == found.end()) {
            differences.push_back("column " + column(want.name) + " is missing");
            sameSet = false;
            continue;
        }
        if (!equalsIgnoringCase(have->type, want.type)) {
            differences.push_back(column(want.name) + " is declared " +
                                  (have->type.empty() ? "without a type" : have->type) + ", expected " +
                                  std::string(want.type));
        }
        if (have->notNull != want.notNull) {
            differences.push_back(column(want.name) + (have->notNull ? " is NOT NULL, expected to allow NULL"
                                                                     : " allows NULL, expected NOT NULL"));
        }
        if (have->key != (want.name == "id")) {
            differences.push_back(column(want.name) + (have->key ? " is part of the primary key, expected not"
                                                                 : " is not the primary key"));
        }
        if (have->defaulted) differences.push_back(column(want.name) + " has a DEFAULT, expected none");
    }
    for (const Found& have : found) {
        const bool known = std::any_of(expected.begin(), expected.end(),
                                       [&](const Column& want) { return equalsIgnoringCase(have.name, want.name); });
        if (!known) differences.push_back("column " + column(have.name) + " is not expected");
    }
    if (sameSet) {
        for (std::size_t i = 0; i < found.size(); ++i) {
            if (!equalsIgnoringCase(found[i].name, expected[i].name)) {
                differences.push_back(inQuotes(table) + " has its columns in another order");
                break;
            }
        }
    }
    const auto sql = file.texts(
        "SELECT upper(sql) FROM sqlite_master WHERE type = 'table' AND name = ?1 COLLATE NOCASE", {std::string(table)});
    if (kind.front() == "table" && (sql.empty() || sql.front().find("AUTOINCREMENT") == std::string::npos)) {
        differences.push_back(column("id") + " is not AUTOINCREMENT");
    }
    return true;
}

void compareForeignKeys(SQLiteFile& file, std::vector<std::string>& differences) {
    bool found = false;
    file.each(
        R"(SELECT "table", "from", "to", on_update, on_delete FROM pragma_foreign_key_list('notificationButton'))", {},
        [&](const SQLiteFile::Row& row) {
            const auto parent = row.text(0).value_or(""), from = row.text(1).value_or("");
            const auto to = row.text(2);
            const auto onUpdate = row.text(3).value_or(""), onDelete = row.text(4).value_or("");
            // A reference without a column names the parent's primary key, which is "id".
            if (equalsIgnoringCase(from, "notificationId") && equalsIgnoringCase(parent, "notification") &&
                (!to || equalsIgnoringCase(*to, "id"))) {
                found = true;
                if (onDelete != "CASCADE") {
                    differences.push_back("the foreign key of notificationButton.notificationId is ON DELETE " +
                                          onDelete + ", expected CASCADE");
                }
                if (onUpdate != "NO ACTION") {
                    differences.push_back("the foreign key of notificationButton.notificationId is ON UPDATE " +
                                          onUpdate + ", expected NO ACTION");
                }
            } else {
                differences.push_back("notificationButton." + from + " has a foreign key to " + parent +
                                      ", not expected");
            }
        });
    if (!found) differences.push_back("notificationButton.notificationId has no foreign key to notification.id");
    const auto other = file.integer("SELECT count(*) FROM pragma_foreign_key_list('notification')");
    if (other.value_or(0) > 0) differences.push_back("\"notification\" has a foreign key, expected none");
}

void compareIndexes(SQLiteFile& file, Report& report) {
    bool found = false;
    for (const std::string table : {"notification", "notificationButton"}) {
        file.each(R"(SELECT name, "unique", partial FROM pragma_index_list(?1) WHERE origin = 'c')", {table},
                  [&](const SQLiteFile::Row& row) {
                      const auto name = row.text(0).value_or("");
                      if (!equalsIgnoringCase(name, indexName) || table != "notificationButton") {
                          report.notes.push_back("index " + inQuotes(name) + " on " + inQuotes(table) +
                                                 " is not one the store creates");
                          return;
                      }
                      found = true;
                      const auto columns = file.texts("SELECT name FROM pragma_index_info(?1) ORDER BY seqno", {name});
                      if (columns.size() != 1 || !equalsIgnoringCase(columns.front(), "notificationId")) {
                          std::string list;
                          for (const auto& c : columns) list += (list.empty() ? "" : ", ") + c;
                          report.schema.push_back("index " + std::string(indexName) + " is on (" + list +
                                                  "), expected (notificationId)");
                      }
                      if (row.integer(1) != 0)
                          report.schema.push_back("index " + std::string(indexName) + " is UNIQUE");
                      if (row.integer(2) != 0)
                          report.schema.push_back("index " + std::string(indexName) + " is partial");
                  });
    }
    if (!found) report.schema.push_back("index " + std::string(indexName) + " is missing");
}

// Returns whether both tables are there, so that their rows can be looked at.
bool compareSchema(SQLiteFile& file, Report& report) {
    const bool notifications = compareColumns(file, "notification", notificationColumns, report.schema);
    const bool buttons = compareColumns(file, "notificationButton", buttonColumns, report.schema);
    if (buttons) {
        compareForeignKeys(file, report.schema);
        compareIndexes(file, report);
    }
    // A trigger changes what the store's statements do, and may drop a change without an error.
    file.each("SELECT name, tbl_name FROM sqlite_master WHERE type = 'trigger'", {}, [&](const SQLiteFile::Row& row) {
        report.schema.push_back("trigger " + inQuotes(row.text(0).value_or("")) + " on " +
                                inQuotes(row.text(1).value_or("")) + " is not expected");
    });
    std::string others;
    for (const auto& table : file.tableNames()) {
        if (!equalsIgnoringCase(table, "notification") && !equalsIgnoringCase(table, "notificationButton"))
            others += (others.empty() ? "" : ", ") + inQuotes(table);
    }
    if (!others.empty()) report.notes.push_back("other tables: " + others);
    return notifications && buttons;
}

// --- the rows as the store reads them ----------------------------------------------------------

// Reads `ids` through the store, halving a set whose read fails until each failing row stands
// alone: the store's own reader says which rows it cannot read, and why.
void readRows(NotificationDatabaseImpl& store, StoreLog& log, std::span<const std::int64_t> ids,
              std::vector<NotificationModelInfo>& readable, Report& report) {
    const auto before = log.failureCount();
    auto infos = store.fetchNotifications(NotificationIDs(ids.begin(), ids.end()));
    if (log.failureCount() == before) {
        readable.insert(readable.end(), std::make_move_iterator(infos.begin()), std::make_move_iterator(infos.end()));
        return;
    }
    if (ids.size() == 1) {
        constexpr std::string_view operation = "Unable to read wrapped notifications: ";
        auto reason = log.lastFailure();
        if (reason.starts_with(operation)) reason.erase(0, operation.size());
        report.unreadable.emplace_back(ids.front(), std::move(reason));
        return;
    }
    readRows(store, log, ids.first(ids.size() / 2), readable, report);
    readRows(store, log, ids.subspan(ids.size() / 2), readable, report);
}

void summariseCustomers(const std::vector<NotificationModelInfo>& readable, Report& report) {
    const Timestamp cutOff = Timestamp(std::chrono::system_clock::now()) - ageLimit;
    std::map<std::optional<std::string>, Customer> customers;
    std::set<std::int64_t> seen;  // a notification with two buttons comes as two rows
    for (const auto& info : readable) {
        const auto& notification = info.notification;
        if (notification.id() && !seen.insert(*notification.id()).second) continue;
        Customer& customer = customers[notification.customerId()];
        customer.id = notification.customerId();
        const Timestamp date = notification.createdDate;
        customer.oldest = customer.count == 0 ? date : std::min(customer.oldest, date);
        customer.newest = customer.count == 0 ? date : std::max(customer.newest, date);
        ++customer.count;
        if (date <= cutOff) ++customer.old;
    }
    for (auto& [id, customer] : customers) report.customers.push_back(std::move(customer));
}

void examineRows(SQLiteFile& file, StoreLog& log,
                 const std::function<std::shared_ptr<NotificationDatabaseImpl>()>& openStore, Report& report) {
    report.rowsLookedAt = true;
    run(report, "row count", [&] {
        report.notifications = file.integer(R"(SELECT count(*) FROM "notification")");
        report.buttons = file.integer(R"(SELECT count(*) FROM "notificationButton")");
    });
    run(report, "orphan buttons", [&] {
        file.each(R"(SELECT "id", "notificationId" FROM "notificationButton" WHERE "notificationId" IS NULL
                     OR "notificationId" NOT IN (SELECT "id" FROM "notification") ORDER BY "id")",
                  {}, [&](const SQLiteFile::Row& row) {
                      report.orphans.emplace_back(row.integer(0),
                                                  row.isNull(1) ? std::nullopt : std::optional(row.integer(1)));
                  });
    });
    run(report, "second buttons", [&] {
        file.each(R"(SELECT "notificationId", "id" FROM "notificationButton" WHERE "notificationId" IN
                     (SELECT "notificationId" FROM "notificationButton" GROUP BY 1 HAVING count(*) > 1) ORDER BY 1, 2)",
                  {}, [&](const SQLiteFile::Row& row) {
                      if (report.crowded.empty() || report.crowded.back().first != row.integer(0))
                          report.crowded.emplace_back(row.integer(0), IDs{});
                      report.crowded.back().second.push_back(row.integer(1));
                  });
    });

    IDs ids;
    run(report, "rows", [&] {
        file.each(R"(SELECT "id" FROM "notification" ORDER BY "id")", {},
                  [&](const SQLiteFile::Row& row) { ids.push_back(row.integer(0)); });
    });
    std::shared_ptr<NotificationDatabaseImpl> store;
    try {
        store = openStore();
    } catch (const std::exception& error) {
        report.notChecked.emplace("rows", std::string("the store cannot open the file: ") + error.what());
        return;
    }
    log.setQuiet(true);
    std::vector<NotificationModelInfo> readable;
    const auto before = log.failureCount();
    readable = store->fetchNotifications(std::nullopt);
    if (log.failureCount() != before) {
        readable.clear();
        // A read of no row that fails fails for every row alike.
        store->fetchNotifications(NotificationIDs{});
        if (log.failureCount() != before + 2) {
            readRows(*store, log, ids, readable, report);
        } else {
            report.notChecked.emplace("rows", "the store reads no row: " + log.lastFailure());
        }
    }
    log.setQuiet(false);
    summariseCustomers(readable, report);
}

// --- output ------------------------------------------------------------------------------------

std::string dateText(Timestamp date) {
    return formatDateText(date).value_or("?");
}

std::string customerName(const std::optional<std::string>& id) {
    return id ? Json(*id).dump(-1, ' ', false, Json::error_handler_t::replace) : "no customer";
}

std::string customerLine(const Customer& customer) {
    std::string line = customerName(customer.id) + ": " + plural(customer.count, "notification") + ", " +
                       dateText(customer.oldest) + " to " + dateText(customer.newest);
    if (customer.count > customerLimit)
        line += ", " + std::to_string(customer.count - customerLimit) + " over the limit of 100";
    if (customer.old > 0) line += ", " + std::to_string(customer.old) + " 30 days old or older";
    return line;
}

void printText(std::ostream& out, const std::string& path, const Report& report) {
    // A section whose step did not run says so rather than "ok"; the reason comes at the end.
    const auto section = [&](std::string_view title, const std::string& step, const std::vector<std::string>& lines,
                             const std::string& whenEmpty, const std::string& summary) {
        out << title << ": "
            << (!lines.empty()                     ? summary
                : report.notChecked.contains(step) ? "not checked"
                                                   : whenEmpty)
            << '\n';
        for (const auto& line : lines) out << "  " << line << '\n';
    };
    const auto count = [](const std::vector<std::string>& lines, std::string_view noun) {
        return plural(static_cast<std::int64_t>(lines.size()), noun);
    };
    out << "file: " << path << '\n';
    const bool intact = report.integrity == std::vector<std::string>{"ok"};
    section("integrity", "", intact ? std::vector<std::string>{} : report.integrity, "ok",
            count(report.integrity, "finding"));
    section("foreign keys", "foreign keys", report.foreignKeys, "ok", count(report.foreignKeys, "violation"));
    section("journal mode", "journal mode", {}, report.journalMode, "");
    section("schema", "schema", report.schema, "as expected", count(report.schema, "difference"));

    std::vector<std::string> lines;
    for (const auto& [id, reason] : report.unreadable)
        lines.push_back("notification " + std::to_string(id) + ": " + reason);
    const std::string counts =
        report.notifications && report.buttons
            ? plural(*report.notifications, "notification") + ", " + plural(*report.buttons, "button") + "; "
            : "";
    section("rows", "rows", lines, counts + (report.notifications ? "every row reads" : "not read"),
            counts + std::to_string(lines.size()) + " cannot be read");
    lines.clear();
    for (const auto& [id, notification] : report.orphans) {
        lines.push_back("button " + std::to_string(id) +
                        (notification
                             ? " points at notification " + std::to_string(*notification) + ", which is not stored"
                             : " belongs to no notification"));
    }
    const std::string none = report.rowsLookedAt ? "none" : "not read";
    section("orphan buttons", "orphan buttons", lines, none, std::to_string(lines.size()));
    lines.clear();
    for (const auto& [notification, buttons] : report.crowded)
        lines.push_back("notification " + std::to_string(notification) + " has buttons " + joined(buttons));
    section("notifications with more than one button", "second buttons", lines, none, std::to_string(lines.size()));
    lines.clear();
    for (const auto& customer : report.customers) lines.push_back(customerLine(customer));
    section("customers", "rows", lines, none, std::to_string(lines.size()));
    lines.clear();
    for (const auto& [step, reason] : report.notChecked) lines.push_back(step + ": " + reason);
    if (!lines.empty()) section("not checked", "", lines, "", std::to_string(lines.size()));
    if (!report.notes.empty()) section("notes", "", report.notes, "", std::to_string(report.notes.size()));

    const auto problems = report.problems();
    std::string names;
    for (const auto& name : problems) names += (names.empty() ? "" : ", ") + name;
    out << path << (problems.empty() ? ": sound" : ": not sound: " + names) << '\n';
}

Json toJson(const std::string& path, const Report& report) {
    Json json{{"file", path}, {"sound", report.problems().empty()}, {"problems", report.problems()}};
    json["integrity"] = report.integrity;
    json["foreignKeys"] = report.foreignKeys;
    json["journalMode"] = report.journalMode;
    json["schema"] = report.schema;
    json["notifications"] = report.notifications ? Json(*report.notifications) : Json();
    json["buttons"] = report.buttons ? Json(*report.buttons) : Json();
    json["unreadableRows"] = Json::array();
    for (const auto& [id, reason] : report.unreadable)
        json["unreadableRows"].push_back({{"id", id}, {"reason", reason}});
    json["orphanButtons"] = Json::array();
    for (const auto& [id, notification] : report.orphans) {
        json["orphanButtons"].push_back({{"id", id}, {"notificationId", notification ? Json(*notification) : Json()}});
    }
    json["extraButtons"] = Json::array();
    for (const auto& [notification, buttons] : report.crowded)
        json["extraButtons"].push_back({{"notificationId", notification}, {"buttonIds", buttons}});
    json["customers"] = Json::array();
    for (const auto& customer : report.customers) {
        json["customers"].push_back({{"customerId", customer.id ? Json(*customer.id) : Json()},
                                     {"count", customer.count},
                                     {"oldest", dateText(customer.oldest)},
                                     {"newest", dateText(customer.newest)},
                                     {"overLimit", std::max<std::int64_t>(0, customer.count - customerLimit)},
                                     {"thirtyDaysOld", customer.old}});
    }
    json["notChecked"] = Json::object();
    for (const auto& [step, reason] : report.notChecked) json["notChecked"][step] = reason;
    json["notes"] = report.notes;
    return json;
}

}  // namespace

bool checkDatabase(const std::filesystem::path& path, StoreLog& log,
                   const std::function<std::shared_ptr<NotificationDatabaseImpl>()>& openStore, bool json,
                   std::ostream& out) {
    SQLiteFile file(path);
    Report report;
    try {
        // One finding may span lines ("*** in database main ***" and what follows).
        file.each("PRAGMA integrity_check", {}, [&](const SQLiteFile::Row& row) {
            const auto text = row.text(0).value_or("");
            for (std::size_t start = 0; start < text.size();) {
                const auto end = std::min(text.find('\n', start), text.size());
                report.integrity.push_back(text.substr(start, end - start));
                start = end + 1;
            }
        });
    } catch (const std::exception& error) {
        // SQLite may give up part-way on a damaged file; what it found until then stands.
        report.integrity.push_back(LogSanitizer::sanitizeError(error));
    }
    run(report, "foreign keys", [&] {
        file.each("PRAGMA foreign_key_check", {}, [&](const SQLiteFile::Row& row) {
            report.foreignKeys.push_back(row.text(0).value_or("") + " row " + row.text(1).value_or("NULL") +
                                         " refers to a missing row of " + row.text(2).value_or(""));
        });
    });
    run(report, "journal mode", [&] {
        const auto modes = file.texts("PRAGMA journal_mode");
        report.journalMode = modes.empty() ? "" : modes.front();
        if (report.journalMode != "wal")
            report.notes.push_back("the journal mode is " + report.journalMode +
                                   "; the store makes it wal when it writes");
    });
    bool tables = false;
    run(report, "schema", [&] { tables = compareSchema(file, report); });
    // Without both tables there are no rows to look at; the schema says what is missing.
    if (tables) examineRows(file, log, openStore, report);

    const std::string name = path.string();
    if (json) {
        out << toJson(name, report).dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
    } else {
        printText(out, name, report);
    }
    return report.problems().empty();
}

}  // namespace notificationdb::tool
