// Differential oracle of row decoding: joined rows of any shape, written by a plain connection, are
// read into records and every field is checked against a model of the reading rules (`expected`).
// Input: one column per line, "<source> <name> <type> <value>". Source: n (a column of
// "notification"), b (one of "notificationButton"), or e (an expression, a bound parameter, among
// the notification's columns); type: null, int, real, text or blob; value: the rest of the line.
// The row is the store's joined read: the n and e columns, the column named "notificationButton"
// and then the b columns. "nojoin" leaves the button table without a row. A seed of the corpus
// declares the outcome of the joined read, "expect reads" or "expect <table>.<column>" of the
// first failing field, so that a seed meant for one field cannot pass by failing at another.

#include "FuzzCheck.hpp"

#include <NotificationDatabase/Database/Configuration.hpp>
#include <NotificationDatabase/Database/DatabaseError.hpp>
#include <NotificationDatabase/Database/DatabasePool.hpp>
#include <NotificationDatabase/Database/Names.hpp>
#include <NotificationDatabase/JoinedRow.hpp>
#include <NotificationDatabase/RecordCoding/RowCoding.hpp>

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

constexpr int maximumColumns = 48;
constexpr std::string_view sources = "nbe";
constexpr std::string_view tables[] = {"notification", "notificationButton"};
enum { notificationSource = 0, buttonSource = 1, expressionSource = 2 };

std::filesystem::path directory;
std::unique_ptr<DatabasePool> pool;

struct Column {
    int source;  // index in `sources`
    std::string name;
    char type;  // 'i', 'r', 't', 'b', or NULL for anything else
    std::string value;
};

std::vector<Column> parseInput(std::string_view text, bool& joinButton, std::string& declared) {
    std::vector<Column> columns;
    while (!text.empty() && columns.size() < maximumColumns) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        joinButton = joinButton && line != "nojoin";
        if (line.starts_with("expect ")) declared = line.substr(7);
        std::array<std::string_view, 3> tokens;
        for (auto& token : tokens) {
            token = line.substr(0, line.find(' '));
            line.remove_prefix(std::min(line.size(), token.size() + 1));
        }
        const auto source = tokens[0].size() == 1 ? sources.find(tokens[0][0]) : std::string_view::npos;
        if (source == std::string_view::npos) continue;
        std::string name(tokens[1]);
        std::erase_if(name, [](char c) { return c == '\0' || c == '"'; });  // names are quoted, SQL ends at a zero
        const char type = tokens[2].empty() ? 'n' : tokens[2][0];
        columns.push_back({static_cast<int>(source), std::move(name), type, std::string(line)});
    }
    // The notification's part first, then the button's, each in input order.
    std::stable_partition(columns.begin(), columns.end(), [](const Column& c) { return c.source != buttonSource; });
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
    pool->write([&](Connection& connection) {
        std::string values = "?";
        for (int i = 1; i < maximumColumns; ++i) values += ", ?";
        for (int source : {notificationSource, buttonSource}) {
            connection.cachedStatement("DELETE FROM " + quote(tables[source]))->execute();
            if (source == buttonSource && !joinButton) continue;
            auto insert = connection.cachedStatement("INSERT INTO " + quote(tables[source]) + " VALUES (" + values + ")");
            for (std::size_t k = 0; k < columns.size(); ++k) {
                if (columns[k].source == source) bindColumn(*insert, static_cast<int>(k) + 1, columns[k]);
            }
            insert->execute();
        }
    });
}

// Columns [first, second) of the row.
using View = std::pair<int, int>;

// The model: field `i` of `Record` from `view`, nullopt when reading must fail. Missing or NULL is
// absent (a required field fails); integers come from INTEGER or whole REAL values in range (an
// enumeration's must name a case), booleans from any number, text from TEXT, bytes from BLOB or
// TEXT, dates from date text or seconds since 1970 floored to the millisecond, years 0000...9999.
template <class Record>
std::optional<FieldValue> expected(sqlite3_stmt* row, View view, std::size_t i) {
    using Value = std::optional<FieldValue>;
    const FieldDescriptor& field = fieldDescriptors<Record>[i];
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
    if (number) return ms >= fuzz::earliest && ms < fuzz::latest ? Value(fuzz::at(std::int64_t(ms))) : std::nullopt;
    return type == SQLITE_TEXT ? Value(fuzz::modelDateText(text)) : std::nullopt;
}

// A record's values by the model, and the field a refusal must name (the first to fail, in field
// order), empty when the record reads.
template <class Record>
struct Expected {
    RecordValues<Record> values;
    std::string_view failing;

    Expected(sqlite3_stmt* row, View view) {
        for (std::size_t i = 0; i < values.size(); ++i) {
            auto value = expected<Record>(row, view, i);
            if (!value && failing.empty()) failing = fieldDescriptors<Record>[i].name;
            if (value) values[i] = std::move(*value);
        }
    }
};

// A record that was read holds the model's values, also after a row of its own (fields bound).
template <class Record>
void checkRecord(Connection& connection, const Record& record, const Expected<Record>& model, std::string context) {
    FUZZ_CHECK(model.failing.empty(), context + ": read, but must fail at " + std::string(model.failing));
    const RecordValues<Record> values = encodeRecord(record);
    for (std::size_t i = 0; i < values.size(); ++i)
        FUZZ_CHECK(values[i] == model.values[i], context + ": field " + std::string(fieldDescriptors<Record>[i].name));
    std::string sql = "SELECT ? AS " + quote(fieldDescriptors<Record>[0].name);
    for (std::size_t i = 1; i < values.size(); ++i) sql += ", ? AS " + quote(fieldDescriptors<Record>[i].name);
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
    std::string sql = "SELECT ";
    for (std::size_t k = 0; k < columns.size(); ++k) {
        const int source = columns[k].source;
        if (source == buttonSource && (k == 0 || columns[k - 1].source != buttonSource)) {
            sql += R"(NULL AS "notificationButton", )";
        }
        sql += source == expressionSource ? "?" : quote(tables[source]) + ".c" + std::to_string(k);
        sql += " AS " + quote(columns[k].name) + ", ";
    }
    if (columns.back().source != buttonSource) sql += R"(NULL AS "notificationButton", )";
    auto statement = connection.cachedStatement(
        sql.substr(0, sql.size() - 2) + R"( FROM "notification" LEFT JOIN "notificationButton" ON 1)");
    int parameter = 1;
    for (const Column& column : columns) {
        if (column.source == expressionSource) bindColumn(*statement, parameter++, column);
    }
    FUZZ_CHECK(statement->step(), "the joined query gave no row");
    const Row row = statement->row();
    sqlite3_stmt* handle = row.handle();

    // The two parts split at the first column named after the button table.
    int split = 0;
    while (split < row.end() && !equalsIgnoringCase(sqlite3_column_name(handle, split), "notificationButton")) ++split;
    const View notificationPart{0, split}, buttonPart{split + 1, row.end()};
    bool hasButton = false;
    for (int i = buttonPart.first; i < buttonPart.second; ++i) hasButton |= sqlite3_column_type(handle, i) != SQLITE_NULL;
    const Expected<NotificationModel> notification(handle, notificationPart);
    const Expected<NotificationButton> actionButton(handle, buttonPart);
    const auto failing = notification.failing.empty() && hasButton ? actionButton.failing : notification.failing;
    const std::string outcome = !notification.failing.empty() ? "notification." + std::string(failing)
                                : !failing.empty()           ? "notificationButton." + std::string(failing)
                                                             : "reads";
    FUZZ_CHECK(!fuzz::replaying || declared == outcome, "the seed declares '" + declared + "', the model gives " + outcome);
    checkReading(failing, "joined row", [&] {
        NotificationModelInfo info(RecordCoding<NotificationModel>::blank());
        JoinedRow(row).read(info);
        checkRecord(connection, info.notification, notification, "joined row");
        FUZZ_CHECK(info.actionButton.has_value() == hasButton, "joined row: a button dropped or made up");
        if (info.actionButton) checkRecord(connection, *info.actionButton, actionButton, "joined row");
    });
    // A button from the notification's part: any record reads from any row by column name.
    const Expected<NotificationButton> other(handle, notificationPart);
    checkReading(other.failing, "button from the notification's part", [&] {
        checkRecord(connection, readRecord<NotificationButton>(row.part(0, split)), other, "button from the notification's part");
    });
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // Every input commits a write: a memory file system (TMPDIR, else /dev/shm) spares the disk.
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = tmp != nullptr ? tmp : access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    pattern += "/fuzz_record_row.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    directory = pattern;
    std::atexit([] {
        pool.reset();
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    });
    pool = std::make_unique<DatabasePool>(directory / "rows.sqlite", Configuration{});
    pool->write([](Connection& connection) {
        // Columns without types keep every value in the storage class it was bound with.
        for (int source : {notificationSource, buttonSource}) {
            std::string sql = "CREATE TABLE " + quote(tables[source]) + " (c0";
            for (int i = 1; i < maximumColumns; ++i) sql += ", c" + std::to_string(i);
            connection.execute(sql + ")");
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
        pool->read([&](Connection& connection) { readRow(connection, columns, declared); });
    } catch (const DatabaseError& error) {
        // SQLite may refuse the query (a name it cannot take): a clean outcome, unlike a failed store.
        FUZZ_CHECK(error.sql().starts_with("SELECT"), std::string("storing the row: ") + error.what());
    }
    return 0;
}
