// Differential oracle of row decoding: rows of any shape, written by a plain connection, are read
// into records and every field is checked against a model of the reading rules (`expected`).
// Input: one column per line, "<source> <name> <type> <value>". Source: n ("notification"),
// b ("notificationButton"), x (a third table), e (an expression: a bound parameter) or k (the
// row id of "notificationButton", declared never NULL; no type or value); type: null, int, real,
// text or blob; value: the rest of the line. "nojoin" leaves the button table unmatched. A seed of
// the corpus declares the outcome of the joined read, "expect reads" or "expect <table>.<column>" of
// the first failing field, so that a seed meant for one field cannot pass by failing at another.

#include "FuzzCheck.hpp"

#include <NotificationDatabase/Configuration.hpp>
#include <NotificationDatabase/Database/DatabasePool.hpp>
#include <NotificationDatabase/Database/RecordPersistence.hpp>
#include <NotificationDatabase/DatabaseError.hpp>
#include <NotificationDatabase/NotificationModel/NotificationModelInfo.hpp>

#include <sqlite3.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

using namespace notificationdb;

constexpr int kMaximumColumns = 48;
constexpr std::string_view kSources = "nbxek";
constexpr std::string_view kTables[] = {"notification", "notificationButton", "extra", "", "notificationButton"};
enum { kButton = 1, kExpression = 3, kRowID = 4 };

std::filesystem::path gDirectory;
std::unique_ptr<DatabasePool> gPool;

struct Column {
    int source;  // index in kSources
    std::string name;
    char type;  // 'i', 'r', 't', 'b', or NULL for anything else
    std::string value;
};

std::vector<Column> parseInput(std::string_view text, bool& joinButton, std::string& declared) {
    std::vector<Column> columns;
    while (!text.empty() && columns.size() < kMaximumColumns) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        joinButton = joinButton && line != "nojoin";
        if (line.starts_with("expect ")) declared = line.substr(7);
        std::array<std::string_view, 3> tokens;
        for (auto& token : tokens) {
            token = line.substr(0, line.find(' '));
            line.remove_prefix(std::min(line.size(), token.size() + 1));
        }
        const auto source = tokens[0].size() == 1 ? kSources.find(tokens[0][0]) : std::string_view::npos;
        if (source == std::string_view::npos) continue;
        std::string name(tokens[1]);
        std::erase_if(name, [](char c) { return c == '\0' || c == '"'; });  // names are quoted, SQL ends at a zero
        const char type = tokens[2].empty() || source == kRowID ? 'n' : tokens[2][0];
        columns.push_back({static_cast<int>(source), std::move(name), type, std::string(line)});
    }
    return columns;
}

const auto quote = [](std::string_view name) { return '"' + std::string(name) + '"'; };

void bindColumn(Statement& statement, int index, const Column& column) {
    const std::string& value = column.value;
    std::int64_t integer = 0;
    std::from_chars(value.data(), value.data() + value.size(), integer);
    if (column.type == 'i') return statement.bind(index, integer);
    if (column.type == 'r') return statement.bind(index, std::strtod(value.c_str(), nullptr));
    if (column.type == 't') return statement.bind(index, std::string_view(value));
    if (column.type != 'b') return statement.bindNull(index);
    statement.bind(index, std::span(reinterpret_cast<const std::uint8_t*>(value.data()), value.size()));
}

// One row per table: the value of input column k in column "ck" of its table.
void storeRow(const std::vector<Column>& columns, bool joinButton) {
    gPool->write([&](Connection& connection) {
        std::string values = "?";
        for (int i = 1; i < kMaximumColumns; ++i) values += ", ?";
        for (int source = 0; source < 3; ++source) {
            connection.cachedStatement("DELETE FROM " + quote(kTables[source]))->execute();
            if (source == kButton && !joinButton) continue;
            auto insert = connection.cachedStatement("INSERT INTO " + quote(kTables[source]) + " VALUES (" + values +
                                                     (source == kButton ? ", NULL)" : ")"));
            for (std::size_t k = 0; k < columns.size(); ++k) {
                if (columns[k].source == source) bindColumn(*insert, static_cast<int>(k) + 1, columns[k]);
            }
            insert->execute();
        }
    });
}

// Columns [first, second) of the row. The base part is the leading run of columns of one table
// (every column when the first has no table); each further run of one table is a scope.
using View = std::pair<int, int>;

View viewOf(const std::vector<Column>& columns, std::string_view table) {
    const auto origin = [&columns](std::size_t k) { return kTables[columns[k].source]; };
    std::size_t k = origin(0).empty() ? columns.size() : 0;
    while (k < columns.size() && origin(k) == origin(0)) ++k;
    if (table.empty()) return {0, static_cast<int>(k)};
    while (k < columns.size()) {
        const std::size_t begin = k;
        while (k < columns.size() && origin(k) == origin(begin)) ++k;
        if (origin(begin) == table) return {static_cast<int>(begin), static_cast<int>(k)};
    }
    return {-1, -1};
}

// The model: field `i` of `Record` from `view`, nullopt when reading must fail. Missing or NULL is
// absent (a required field fails); integers come from INTEGER or whole REAL values in range (an
// enumeration's must name a case), booleans from any number, text from TEXT, bytes from BLOB or
// TEXT, dates from date text or seconds since 1970 floored to the millisecond, years 0000...9999.
template <class Record>
std::optional<FieldValue> expected(sqlite3_stmt* row, View view, std::size_t i) {
    using Value = std::optional<FieldValue>;
    const FieldDescriptor& field = RecordCoding<Record>::fields[i];
    int at = view.first;
    while (at < view.second && !equalsIgnoringCase(sqlite3_column_name(row, at), field.name)) ++at;
    const int type = at < view.second ? sqlite3_column_type(row, at) : SQLITE_NULL;
    if (type == SQLITE_NULL) return field.optional ? Value(std::monostate{}) : std::nullopt;
    // Only the accessor of the value's own storage class: SQLite converts nothing then.
    const bool number = type == SQLITE_INTEGER || type == SQLITE_FLOAT;
    const std::int64_t integer = type == SQLITE_INTEGER ? sqlite3_column_int64(row, at) : 0;
    const double real = type == SQLITE_FLOAT ? sqlite3_column_double(row, at) : static_cast<double>(integer);
    const void* bytes = type == SQLITE_TEXT ? sqlite3_column_text(row, at)
                        : number            ? nullptr
                                            : sqlite3_column_blob(row, at);
    const std::string text =
        bytes != nullptr ? std::string(static_cast<const char*>(bytes), sqlite3_column_bytes(row, at)) : "";
    if (field.type == FieldType::integer || field.type == FieldType::enumeration) {
        const bool whole =
            type == SQLITE_INTEGER || (number && std::trunc(real) == real && real >= -0x1p63 && real < 0x1p63);
        const std::int64_t raw = type == SQLITE_INTEGER ? integer : whole ? static_cast<std::int64_t>(real) : 0;
        const std::int64_t cases = field.name == "status" ? 3 : field.name == "notificationKind" ? 5 : 7;
        const bool isCase = field.type == FieldType::integer || (raw >= 0 && raw < cases);
        return whole && isCase ? Value(raw) : std::nullopt;
    }
    if (field.type == FieldType::boolean) return number ? Value(real != 0) : std::nullopt;
    if (field.type == FieldType::text) return type == SQLITE_TEXT ? Value(text) : std::nullopt;
    if (field.type == FieldType::bytes) return number ? std::nullopt : Value(Bytes(text.begin(), text.end()));
    const double ms = std::floor(real * 1000);
    if (number) return ms >= fuzz::kEarliest && ms < fuzz::kLatest ? Value(fuzz::at(std::int64_t(ms))) : std::nullopt;
    return type == SQLITE_TEXT ? Value(fuzz::modelDateText(text)) : std::nullopt;
}

// A record's values by the model, and the field a refusal must name (the first to fail in the
// order the record reads its fields), empty when the record reads.
template <class Record>
struct Expected {
    RecordValues<Record> values;
    std::string_view failing;

    Expected(sqlite3_stmt* row, View view) {
        constexpr auto order = std::is_same_v<Record, NotificationButton>
                                   ? std::array<std::size_t, 12>{5, 0, 1, 2, 3, 4, 6}
                                   : std::array<std::size_t, 12>{10, 11, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
        for (std::size_t n = 0; n < values.size(); ++n) {
            auto value = expected<Record>(row, view, order[n]);
            if (!value && failing.empty()) failing = RecordCoding<Record>::fields[order[n]].name;
            if (value) values[order[n]] = std::move(*value);
        }
    }
};

// A record that was read holds the model's values, also after a row of its own (fields bound).
template <class Record>
void checkRecord(Connection& connection, const Record& record, const Expected<Record>& model, std::string context) {
    using Coding = RecordCoding<Record>;
    FUZZ_CHECK(model.failing.empty(), context + ": read, but must fail at " + std::string(model.failing));
    const RecordValues<Record> values = encodeRecord(record);
    for (std::size_t i = 0; i < values.size(); ++i)
        FUZZ_CHECK(values[i] == model.values[i], context + ": field " + std::string(Coding::fields[i].name));
    std::string sql = "SELECT ? AS " + quote(Coding::fields[0].name);
    for (std::size_t i = 1; i < Coding::fields.size(); ++i) sql += ", ? AS " + quote(Coding::fields[i].name);
    auto statement = connection.cachedStatement(sql);
    bindRecord(*statement, record);
    FUZZ_CHECK(statement->step(), "a SELECT without FROM gave no row");
    FUZZ_CHECK(encodeRecord(readRecord<Record>(statement->row())) == values, context + ": changed in a row of its own");
}

// Runs `read`, which reads records and checks them; a refusal must name `failing`, the first
// field the model finds failing.
template <class Read>
void checkReading(std::string_view failing, const std::string& context, Read read) {
    try {
        read();
    } catch (const RecordDecodingError& error) {
        FUZZ_CHECK(error.column() == failing, context + ": " + error.what() + "; model: " + std::string(failing));
    }
}

void readRow(Connection& connection, const std::vector<Column>& columns, const std::string& declared) {
    std::string sql;
    for (std::size_t k = 0; k < columns.size(); ++k) {
        const int source = columns[k].source;
        const std::string table = quote(kTables[source]);
        sql += k > 0 ? ", " : "SELECT ";
        sql += source == kExpression ? "?" : source == kRowID ? table + ".k" : table + ".c" + std::to_string(k);
        sql += " AS " + quote(columns[k].name);
    }
    auto statement = connection.makeStatement(
        sql + R"( FROM "notification" LEFT JOIN "notificationButton" ON 1 LEFT JOIN "extra" ON 1)");
    int parameter = 1;
    for (const Column& column : columns) {
        if (column.source == kExpression) bindColumn(*statement, parameter++, column);
    }
    FUZZ_CHECK(statement->step(), "the joined query gave no row");
    sqlite3_stmt* handle = statement->handle();
    const Row row = statement->row();

    // The pair, as the store's list query reads it.
    const View base = viewOf(columns, ""), button = viewOf(columns, kTables[kButton]);
    bool hasButton = false;
    for (int i = button.first; i < button.second; ++i) hasButton |= sqlite3_column_type(handle, i) != SQLITE_NULL;
    const Expected<NotificationModel> notification(handle, base);
    const Expected<NotificationButton> actionButton(handle, button);
    const auto failing = notification.failing.empty() && hasButton ? actionButton.failing : notification.failing;
    const std::string outcome = !notification.failing.empty() ? "notification." + std::string(failing)
                                : !failing.empty()           ? "notificationButton." + std::string(failing)
                                                             : "reads";
    FUZZ_CHECK(!fuzz::replaying || declared == outcome, "the seed declares '" + declared + "', the model gives " + outcome);
    checkReading(failing, "joined row", [&] {
        const auto info = NotificationModelInfo::fromJoinedRow(row);
        checkRecord(connection, info.notification, notification, "joined row");
        FUZZ_CHECK(info.actionButton.has_value() == hasButton, "joined row: a button dropped or made up");
        if (info.actionButton) checkRecord(connection, *info.actionButton, actionButton, "joined row");
    });
    // A record of the other kind from the base part, and either kind from the third table's scope.
    const auto readAs = [&]<class Record>(const Expected<Record>& model, const Row& from, const std::string& what) {
        checkReading(model.failing, what, [&] { checkRecord(connection, readRecord<Record>(from), model, what); });
    };
    readAs(Expected<NotificationButton>(handle, base), row, "button from the base part");
    if (const auto scope = row.scope("extra")) {
        readAs(Expected<NotificationModel>(handle, viewOf(columns, "extra")), *scope, "notification from a scope");
        readAs(Expected<NotificationButton>(handle, viewOf(columns, "extra")), *scope, "button from a scope");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // Every input commits a write: a memory file system (TMPDIR, else /dev/shm) spares the disk.
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = tmp != nullptr ? tmp : access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    pattern += "/fuzz_record_row.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    gDirectory = pattern;
    std::atexit([] {
        gPool.reset();
        std::error_code ignored;
        std::filesystem::remove_all(gDirectory, ignored);
    });
    gPool = std::make_unique<DatabasePool>(gDirectory / "rows.sqlite", Configuration{});
    gPool->write([](Connection& connection) {
        // Columns without types keep every value in the storage class it was bound with.
        for (int source = 0; source < 3; ++source) {
            std::string sql = "CREATE TABLE " + quote(kTables[source]) + " (c0";
            for (int i = 1; i < kMaximumColumns; ++i) sql += ", c" + std::to_string(i);
            connection.execute(sql + (source == kButton ? ", k INTEGER PRIMARY KEY AUTOINCREMENT)" : ")"));
        }
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    bool joinButton = true;
    std::string declared;
    const auto columns = parseInput(std::string_view(reinterpret_cast<const char*>(data), size), joinButton, declared);
    if (columns.empty()) return 0;
    try {
        storeRow(columns, joinButton);
        gPool->read([&](Connection& connection) { readRow(connection, columns, declared); });
    } catch (const DatabaseError& error) {
        // SQLite may refuse the query (a name it cannot take): a clean outcome, unlike a failed store.
        FUZZ_CHECK(error.sql().starts_with("SELECT"), std::string("storing the row: ") + error.what());
    }
    return 0;
}
