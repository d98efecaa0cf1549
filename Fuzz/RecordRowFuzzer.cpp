// Fuzzes reading records from rows of any shape: every column may hold NULL, an integer, a real,
// text or a blob, under any name (the record's own, in another case, or unknown), in any order,
// from the table "notification", the table "notificationButton", a third table or no table at
// all; columns may be missing or repeated.
//
// The input is text, one column per line:
//
//   <source> <name> <type> <value>
//
// source: n (table "notification"), b ("notificationButton"), x (a third table "extra") or
// e (an expression, a bound parameter); type: null, int, real, text or blob; value: the rest of
// the line. A line "nojoin" leaves the button table unmatched by the LEFT JOIN. Other lines are
// skipped.
//
// The row is stored in tables without types or constraints and read back through a pool read
// as the store's joined query would. Reading must give a record or a `RecordDecodingError`
// (a `DatabaseError` is tolerated); a record must hold what the columns hold and survive a
// round trip through its keyed coding and through a row of its own. An oracle written here
// says, column by column, where reading must succeed and where it must fail.

#include "FuzzCheck.hpp"

#include <NotificationDatabase/Configuration.hpp>
#include <NotificationDatabase/DatabaseError.hpp>
#include <NotificationDatabase/Database/DatabasePool.hpp>
#include <NotificationDatabase/Database/RecordPersistence.hpp>
#include <NotificationDatabase/NotificationModel/NotificationModelInfo.hpp>

#include <sqlite3.h>

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

namespace {

using namespace notificationdb;

constexpr int kMaximumColumns = 48;
constexpr std::string_view kOtherTable = "extra";

enum class Source { notification, button, other, expression };

std::string_view tableOf(Source source) {
    switch (source) {
        case Source::notification:
            return NotificationModel::databaseTableName;
        case Source::button:
            return NotificationButton::databaseTableName;
        case Source::other:
            return kOtherTable;
        case Source::expression:
            break;
    }
    return {};
}

struct InputColumn {
    Source source;
    std::string name;
    ColumnType type;
    std::int64_t integer = 0;
    double real = 0;
    std::string bytes;  // text or blob
};

struct Input {
    std::vector<InputColumn> columns;
    bool joinButton = true;
};

// Splits off the text before the next space (or the rest).
std::string_view nextToken(std::string_view& line) {
    const auto space = line.find(' ');
    const std::string_view token = line.substr(0, space);
    line = space == std::string_view::npos ? std::string_view() : line.substr(space + 1);
    return token;
}

Input parseInput(std::string_view text) {
    Input input;
    while (!text.empty() && input.columns.size() < kMaximumColumns) {
        const auto end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        if (line == "nojoin") {
            input.joinButton = false;
            continue;
        }
        const std::string_view source = nextToken(line);
        const std::string_view name = nextToken(line);
        const std::string_view type = nextToken(line);
        if (source.size() != 1) continue;
        InputColumn column;
        switch (source[0]) {
            case 'n':
                column.source = Source::notification;
                break;
            case 'b':
                column.source = Source::button;
                break;
            case 'x':
                column.source = Source::other;
                break;
            case 'e':
                column.source = Source::expression;
                break;
            default:
                continue;
        }
        // SQLite stops reading SQL text at a zero byte; names keep every other byte.
        for (char c : name) {
            if (c != '\0') column.name += c;
        }
        switch (type.empty() ? 'n' : type[0]) {
            case 'i': {
                column.type = ColumnType::integer;
                const auto result = std::from_chars(line.data(), line.data() + line.size(), column.integer);
                if (result.ec != std::errc()) column.integer = 0;
                break;
            }
            case 'r':
                column.type = ColumnType::real;
                column.real = std::strtod(std::string(line).c_str(), nullptr);
                break;
            case 't':
                column.type = ColumnType::text;
                column.bytes = line;
                break;
            case 'b':
                column.type = ColumnType::blob;
                column.bytes = line;
                break;
            default:
                column.type = ColumnType::null;
                break;
        }
        input.columns.push_back(std::move(column));
    }
    return input;
}

void appendQuoted(std::string& sql, std::string_view identifier) {
    sql += '"';
    for (char c : identifier) {
        sql += c;
        if (c == '"') sql += '"';
    }
    sql += '"';
}

void bindColumn(Statement& statement, int index, const InputColumn& column) {
    switch (column.type) {
        case ColumnType::integer:
            statement.bind(index, column.integer);
            break;
        case ColumnType::real:
            statement.bind(index, column.real);
            break;
        case ColumnType::text:
            statement.bind(index, std::string_view(column.bytes));
            break;
        case ColumnType::blob:
            statement.bind(index, std::span<const std::uint8_t>(
                                      reinterpret_cast<const std::uint8_t*>(column.bytes.data()), column.bytes.size()));
            break;
        case ColumnType::null:
            statement.bindNull(index);
            break;
    }
}

// --- the database --------------------------------------------------------------------------

std::filesystem::path gDirectory;
std::unique_ptr<DatabasePool> gPool;

std::string insertSQL(std::string_view table) {
    std::string sql = "INSERT INTO ";
    appendQuoted(sql, table);
    sql += " VALUES (?";
    for (int i = 1; i < kMaximumColumns; ++i) sql += ", ?";
    sql += ')';
    return sql;
}

void removeDatabase() {
    gPool.reset();
    std::error_code ignored;
    std::filesystem::remove_all(gDirectory, ignored);
}

// Stores one row per table: the value of column k of the input in column "ck" of its table.
void storeRow(const Input& input) {
    gPool->write([&input](Connection& connection) {
        for (const Source source : {Source::notification, Source::button, Source::other}) {
            std::string sql = "DELETE FROM ";
            appendQuoted(sql, tableOf(source));
            connection.cachedStatement(sql)->execute();
            if (source == Source::button && !input.joinButton) continue;
            auto insert = connection.cachedStatement(insertSQL(tableOf(source)));
            for (std::size_t k = 0; k < input.columns.size(); ++k) {
                if (input.columns[k].source == source) {
                    bindColumn(*insert, static_cast<int>(k) + 1, input.columns[k]);
                }
            }
            insert->execute();
        }
    });
}

std::string selectSQL(const Input& input) {
    std::string sql = "SELECT ";
    for (std::size_t k = 0; k < input.columns.size(); ++k) {
        const InputColumn& column = input.columns[k];
        if (k > 0) sql += ", ";
        if (column.source == Source::expression) {
            sql += '?';
        } else {
            appendQuoted(sql, tableOf(column.source));
            sql += '.';
            appendQuoted(sql, "c" + std::to_string(k));
        }
        sql += " AS ";
        appendQuoted(sql, column.name);
    }
    sql += R"( FROM "notification" LEFT JOIN "notificationButton" ON 1 LEFT JOIN "extra" ON 1)";
    return sql;
}

// --- the oracle ----------------------------------------------------------------------------

// A column of the row as SQLite hands it out.
struct Cell {
    std::string name;
    ColumnType type;
    std::int64_t integer = 0;
    double real = 0;
    std::string bytes;
};

// Reads every column with the accessor of its own storage class, so that SQLite converts
// nothing before the library looks at the row.
std::vector<Cell> snapshot(Statement& statement) {
    sqlite3_stmt* handle = statement.handle();
    std::vector<Cell> cells;
    for (int i = 0; i < sqlite3_column_count(handle); ++i) {
        Cell cell;
        cell.name = sqlite3_column_name(handle, i);
        cell.type = static_cast<ColumnType>(sqlite3_column_type(handle, i));
        switch (cell.type) {
            case ColumnType::integer:
                cell.integer = sqlite3_column_int64(handle, i);
                break;
            case ColumnType::real:
                cell.real = sqlite3_column_double(handle, i);
                break;
            case ColumnType::text: {
                const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(handle, i));
                cell.bytes.assign(text, static_cast<std::size_t>(sqlite3_column_bytes(handle, i)));
                break;
            }
            case ColumnType::blob: {
                const auto* blob = static_cast<const char*>(sqlite3_column_blob(handle, i));
                const int size = sqlite3_column_bytes(handle, i);
                if (size > 0) cell.bytes.assign(blob, static_cast<std::size_t>(size));
                break;
            }
            case ColumnType::null:
                break;
        }
        cells.push_back(std::move(cell));
    }
    return cells;
}

// Columns [begin, end) of the row: its base part or one scope.
struct View {
    int begin;
    int end;
};

// A joined row's parts: the base part is the leading run of columns of one table (every
// column when the first has no table); each further run of columns of one table is a scope.
struct Layout {
    View base;
    std::vector<std::pair<std::string, View>> scopes;

    explicit Layout(const Input& input) {
        const int count = static_cast<int>(input.columns.size());
        const auto origin = [&input](int k) { return tableOf(input.columns[k].source); };
        int k = 0;
        if (count > 0 && !origin(0).empty()) {
            while (k < count && origin(k) == origin(0)) ++k;
        } else {
            k = count;
        }
        base = {0, k};
        while (k < count) {
            const int begin = k;
            while (k < count && origin(k) == origin(begin)) ++k;
            scopes.emplace_back(std::string(origin(begin)), View{begin, k});
        }
    }

    std::optional<View> scope(std::string_view table) const {
        for (const auto& [name, view] : scopes) {
            if (name == table) return view;
        }
        return std::nullopt;
    }
};

bool sameName(std::string_view lhs, std::string_view rhs) {
    if (lhs.size() != rhs.size()) return false;
    for (std::size_t i = 0; i < lhs.size(); ++i) {
        const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
        if (lower(lhs[i]) != lower(rhs[i])) return false;
    }
    return true;
}

bool allNull(const std::vector<Cell>& cells, View view) {
    for (int i = view.begin; i < view.end; ++i) {
        if (cells[static_cast<std::size_t>(i)].type != ColumnType::null) return false;
    }
    return true;
}

// What reading a field must give.
enum class Verdict {
    absent,  // the field is absent
    value,   // the field holds `value`
    fails,   // the record cannot be read
    open,    // a conversion the readers may take or refuse
};

struct Expectation {
    Verdict verdict = Verdict::open;
    FieldValue value;
};

// Number of cases of the enumeration stored in a field.
std::int64_t caseCount(std::string_view field) {
    if (field == "status") return 3;
    if (field == "notificationKind") return 5;
    if (field == "actionKind") return 7;
    return 0;
}

Expectation expectField(const FieldDescriptor& field, const std::vector<Cell>& cells, View view) {
    const Cell* cell = nullptr;
    for (int i = view.begin; i < view.end && cell == nullptr; ++i) {
        if (sameName(cells[static_cast<std::size_t>(i)].name, field.name)) cell = &cells[static_cast<std::size_t>(i)];
    }
    if (cell == nullptr || cell->type == ColumnType::null) {
        return {field.optional ? Verdict::absent : Verdict::fails, {}};
    }
    const bool integer = cell->type == ColumnType::integer;
    switch (field.type) {
        case FieldType::integer:
            if (integer) return {Verdict::value, cell->integer};
            break;
        case FieldType::enumeration:
            if (integer) {
                if (cell->integer < 0 || cell->integer >= caseCount(field.name)) return {Verdict::fails, {}};
                return {Verdict::value, cell->integer};
            }
            break;
        case FieldType::boolean:
            if (integer) return {Verdict::value, cell->integer != 0};
            break;
        case FieldType::text:
            if (cell->type == ColumnType::text) return {Verdict::value, cell->bytes};
            break;
        case FieldType::bytes:
            if (cell->type == ColumnType::blob) return {Verdict::value, Bytes(cell->bytes.begin(), cell->bytes.end())};
            break;
        case FieldType::date:
            if (cell->type == ColumnType::text) {
                if (auto date = parseDateText(cell->bytes)) return {Verdict::value, *date};
                return {Verdict::fails, {}};
            }
            if (integer || cell->type == ColumnType::real) {
                const double seconds = integer ? static_cast<double>(cell->integer) : cell->real;
                if (auto date = dateFromSecondsSince1970(seconds)) return {Verdict::value, *date};
            }
            break;
    }
    return {};
}

template <class Record>
struct RecordExpectation {
    std::array<Expectation, RecordCoding<Record>::fields.size()> fields;
    bool mustFail = false;
    bool mustSucceed = true;
};

template <class Record>
RecordExpectation<Record> expectRecord(const std::vector<Cell>& cells, View view) {
    RecordExpectation<Record> expectation;
    for (std::size_t i = 0; i < expectation.fields.size(); ++i) {
        expectation.fields[i] = expectField(RecordCoding<Record>::fields[i], cells, view);
        const Verdict verdict = expectation.fields[i].verdict;
        expectation.mustFail = expectation.mustFail || verdict == Verdict::fails;
        expectation.mustSucceed = expectation.mustSucceed && (verdict == Verdict::absent || verdict == Verdict::value);
    }
    return expectation;
}

// --- checks of a record that was read ------------------------------------------------------

template <class Record>
std::string fieldContext(std::string_view context, std::size_t field) {
    return std::string(context) + ": " + std::string(RecordCoding<Record>::tableName) + "." +
           std::string(RecordCoding<Record>::fields[field].name);
}

// Invariants of every record, wherever it came from.
template <class Record>
void checkInvariants(const Record& record, std::string_view context) {
    using Coding = RecordCoding<Record>;
    const RecordValues<Record> values = encodeRecord(record);
    for (std::size_t i = 0; i < values.size(); ++i) {
        const FieldDescriptor& field = Coding::fields[i];
        const FieldValue& value = values[i];
        FUZZ_CHECK(field.optional || !std::holds_alternative<std::monostate>(value),
                   fieldContext<Record>(context, i) + " is required but absent");
        if (field.type == FieldType::enumeration && !std::holds_alternative<std::monostate>(value)) {
            const std::int64_t raw = std::get<std::int64_t>(value);
            FUZZ_CHECK(raw >= 0 && raw < caseCount(field.name), fieldContext<Record>(context, i) + " is no case");
        }
        if (const auto* date = std::get_if<Timestamp>(&value)) {
            const auto text = formatDateText(*date);
            FUZZ_CHECK(text && text->size() == 23, fieldContext<Record>(context, i) + " cannot be written");
            FUZZ_CHECK(parseDateText(*text) == *date, fieldContext<Record>(context, i) + " does not read back");
        }
    }
    // The keyed coding gives back the same record.
    RecordValues<Record> copy = values;
    const Record decoded = Coding::decode(copy);
    FUZZ_CHECK(encodeRecord(decoded) == values, std::string(context) + ": keyed coding changed the record");
}

template <class Record>
void checkAgainst(const Record& record, const RecordExpectation<Record>& expectation, std::string_view context) {
    FUZZ_CHECK(!expectation.mustFail, std::string(context) + ": a row that must be refused was read");
    const RecordValues<Record> values = encodeRecord(record);
    for (std::size_t i = 0; i < values.size(); ++i) {
        const Expectation& field = expectation.fields[i];
        if (field.verdict == Verdict::absent) {
            FUZZ_CHECK(std::holds_alternative<std::monostate>(values[i]),
                       fieldContext<Record>(context, i) + " must be absent");
        } else if (field.verdict == Verdict::value) {
            FUZZ_CHECK(values[i] == field.value, fieldContext<Record>(context, i) + " differs from its column");
        }
    }
    checkInvariants(record, context);
}

void checkRefusal(bool mustSucceed, const RecordDecodingError& error, std::string_view context) {
    FUZZ_CHECK(!mustSucceed, std::string(context) + ": a readable row was refused: " + error.what());
    bool known = false;
    for (const auto& field : RecordCoding<NotificationModel>::fields) known = known || field.name == error.column();
    for (const auto& field : RecordCoding<NotificationButton>::fields) known = known || field.name == error.column();
    FUZZ_CHECK(known, std::string(context) + ": the error names no field: " + error.what());
}

// Writes the record to a row of its own (its storage forms, bound as parameters) and reads it
// back: the same field values must come out.
template <class Record>
void checkRowRoundTrip(Connection& connection, const Record& record, std::string_view context) {
    using Coding = RecordCoding<Record>;
    static const std::string sql = [] {
        std::string text = "SELECT ";
        for (std::size_t i = 0; i < Coding::fields.size(); ++i) {
            if (i > 0) text += ", ";
            text += "? AS ";
            appendQuoted(text, Coding::fields[i].name);
        }
        return text;
    }();
    auto statement = connection.cachedStatement(sql);
    bindRecord(*statement, record);
    FUZZ_CHECK(statement->step(), "a SELECT without FROM gave no row");
    const Record back = readRecord<Record>(statement->row());
    FUZZ_CHECK(encodeRecord(back) == encodeRecord(record),
               std::string(context) + ": the record changed on its way through a row");
}

// The value of column `index` converted for `field` through the library's conversions; absent
// for NULL or a missing column (index -1).
FieldValue readColumn(const Row& row, int index, const FieldDescriptor& field, std::string_view table) {
    using namespace detail;
    const ColumnType type = index < 0 ? ColumnType::null : row.type(index);
    if (type == ColumnType::null) {
        if (!field.optional) {
            throw RecordDecodingError(table, field.name, index < 0 ? "column is missing" : "required value is NULL");
        }
        return std::monostate{};
    }
    switch (field.type) {
        case FieldType::integer:
        case FieldType::enumeration:
            return integerColumn(row, index, type, table, field.name);
        case FieldType::boolean:
            return booleanColumn(row, index, type, table, field.name);
        case FieldType::text:
            return textColumn(row, index, type, table, field.name);
        case FieldType::bytes:
            return bytesColumn(row, index, type, table, field.name);
        case FieldType::date:
            return dateColumn(row, index, type, table, field.name);
    }
    throw RecordDecodingError(table, field.name, "unknown field type");
}

// The record read the keyed way: one value per column, then the keyed decoding; nullopt when
// that refuses the row.
template <class Record>
std::optional<Record> readKeyed(const Row& row) {
    using Coding = RecordCoding<Record>;
    RecordValues<Record> values;
    try {
        for (std::size_t i = 0; i < values.size(); ++i) {
            values[i] = readColumn(row, row.index(Coding::fields[i].name), Coding::fields[i], Coding::tableName);
        }
        return Coding::decode(values);
    } catch (const RecordDecodingError&) {
        return std::nullopt;
    }
}

// Reads one record from a view and checks the outcome against the oracle, and against the
// keyed way of reading it.
template <class Record>
void readAndCheck(Connection& connection, const Row& row, const std::vector<Cell>& cells, View view,
                  std::string_view context) {
    const auto expectation = expectRecord<Record>(cells, view);
    const std::optional<Record> keyed = readKeyed<Record>(row);
    std::optional<Record> record;
    try {
        record.emplace(readRecord<Record>(row));
    } catch (const RecordDecodingError& error) {
        checkRefusal(expectation.mustSucceed, error, context);
        FUZZ_CHECK(!keyed, std::string(context) + ": the keyed reading accepted a row the direct one refused");
        return;
    }
    FUZZ_CHECK(keyed && encodeRecord(*keyed) == encodeRecord(*record),
               std::string(context) + ": the keyed reading differs from the direct one");
    checkAgainst(*record, expectation, context);
    checkRowRoundTrip(connection, *record, context);
}

void readRow(Connection& connection, const Input& input) {
    auto statement = connection.makeStatement(selectSQL(input));
    int parameter = 1;
    for (const InputColumn& column : input.columns) {
        if (column.source == Source::expression) bindColumn(*statement, parameter++, column);
    }
    FUZZ_CHECK(statement->step(), "the joined query gave no row");
    const std::vector<Cell> cells = snapshot(*statement);
    FUZZ_CHECK(cells.size() == input.columns.size(), "the joined query gave another number of columns");
    const Row row = statement->row();
    const Layout layout(input);

    // The pair, as the store's list query reads it.
    const auto notification = expectRecord<NotificationModel>(cells, layout.base);
    const auto buttonView = layout.scope(NotificationButton::databaseTableName);
    const bool hasButton = buttonView && !allNull(cells, *buttonView);
    std::optional<RecordExpectation<NotificationButton>> button;
    if (hasButton) button = expectRecord<NotificationButton>(cells, *buttonView);
    {
        const bool mustFail = notification.mustFail || (button && button->mustFail);
        const bool mustSucceed = notification.mustSucceed && (!button || button->mustSucceed);
        std::optional<NotificationModelInfo> info;
        try {
            info.emplace(NotificationModelInfo::fromJoinedRow(row));
        } catch (const RecordDecodingError& error) {
            checkRefusal(mustSucceed, error, "joined row");
        }
        if (info) {
            FUZZ_CHECK(!mustFail, "joined row: a pair was read from a row that must be refused");
            checkAgainst(info->notification, notification, "joined row");
            checkRowRoundTrip(connection, info->notification, "joined row");
            FUZZ_CHECK(info->actionButton.has_value() == hasButton,
                       hasButton ? "joined row: the button was dropped" : "joined row: a button was made up");
            if (info->actionButton) {
                checkAgainst(*info->actionButton, *button, "joined row");
                checkRowRoundTrip(connection, *info->actionButton, "joined row");
            }
        }
    }

    // Each record type from the other parts of the row.
    readAndCheck<NotificationButton>(connection, row, cells, layout.base, "button from the base part");
    if (const auto scope = row.scope(kOtherTable)) {
        const auto view = layout.scope(kOtherTable);
        FUZZ_CHECK(view.has_value(), "the row has a scope it must not have");
        readAndCheck<NotificationModel>(connection, *scope, cells, *view, "notification from a scope");
        readAndCheck<NotificationButton>(connection, *scope, cells, *view, "button from a scope");
    } else {
        FUZZ_CHECK(!layout.scope(kOtherTable).has_value(), "the row lacks a scope it must have");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // Every input commits a write: a memory file system (TMPDIR, else /dev/shm) spares the disk.
    const char* tmp = std::getenv("TMPDIR");
    std::string directory = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
    std::error_code error;
    if (tmp == nullptr && std::filesystem::is_directory("/dev/shm", error)) directory = "/dev/shm";
    std::string pattern = directory + "/fuzz_record_row.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        std::perror("mkdtemp");
        std::abort();
    }
    gDirectory = pattern;
    std::atexit(removeDatabase);
    gPool = std::make_unique<DatabasePool>(gDirectory / "rows.sqlite", Configuration{});
    gPool->write([](Connection& connection) {
        // Columns without types keep every value in the storage class it was bound with.
        for (const std::string_view table : {tableOf(Source::notification), tableOf(Source::button), kOtherTable}) {
            std::string sql = "CREATE TABLE ";
            appendQuoted(sql, table);
            sql += " (c0";
            for (int i = 1; i < kMaximumColumns; ++i) sql += ", c" + std::to_string(i);
            sql += ')';
            connection.execute(sql);
        }
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Input input = parseInput(std::string_view(reinterpret_cast<const char*>(data), size));
    if (input.columns.empty()) return 0;
    try {
        storeRow(input);
    } catch (const std::exception& error) {
        notificationdb::fuzz::failUnexpected("storing the row", &error);
    }
    try {
        gPool->read([&input](Connection& connection) { readRow(connection, input); });
    } catch (const DatabaseError&) {
        // SQLite may refuse a query (a name it cannot take); that is a clean outcome.
    } catch (const std::exception& error) {
        notificationdb::fuzz::failUnexpected("reading the row", &error);
    } catch (...) {
        notificationdb::fuzz::failUnexpected("reading the row", nullptr);
    }
    return 0;
}
