// Tables of any shape, written by another program, read through the store's joined read, every field
// checked against a model of the reading rules (`expected`). One column per line: "<n|b> <name>
// <null|int|real|text|blob> <value>" (n: "notification", b: "notificationButton"); "nojoin" leaves
// the button table empty, "notnull <name>" makes that button column NOT NULL. A corpus seed declares
// "expect reads" or "expect <table>.<column>" of the first failing field, and must give just that.

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

constexpr std::size_t maximumColumns = 48;
constexpr std::string_view sources = "nb";
constexpr std::string_view tables[] = {"notification", "notificationButton"};
enum { notificationSource = 0, buttonSource = 1 };

std::filesystem::path directory;
std::unique_ptr<DatabasePool> pool;

struct Column {
    int source;  // index in `sources`
    std::string name;
    char type;  // 'i', 'r', 't', 'b', or NULL for anything else
    std::string value;
};

struct Input {
    std::vector<Column> columns;  // the notification's, then the button's
    bool joinButton = true;
    std::string notNull;  // a column of the button table declared NOT NULL
    std::string declared;
};

Input parseInput(std::string_view text) {
    Input input;
    auto& columns = input.columns;
    while (!text.empty() && columns.size() < maximumColumns) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        input.joinButton = input.joinButton && line != "nojoin";
        if (line.starts_with("expect ")) input.declared = line.substr(7);
        if (line.starts_with("notnull ")) input.notNull = line.substr(8);
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
    std::stable_partition(columns.begin(), columns.end(), [](const Column& c) { return c.source != buttonSource; });
    return input;
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

// Both tables made anew with the input's untyped columns (values keep their storage class), one row each.
void storeRow(const Input& input) {
    pool->write([&](Connection& connection) {
        for (int source : {buttonSource, notificationSource}) {
            std::string columns, values;
            for (const Column& column : input.columns) {
                if (column.source != source) continue;
                columns += (columns.empty() ? "" : ", ") + quote(column.name);
                if (source == buttonSource && column.name == input.notNull) columns += " NOT NULL";
                values += values.empty() ? "?" : ", ?";
            }
            connection.execute("DROP TABLE IF EXISTS " + quote(tables[source]));
            connection.execute("CREATE TABLE " + quote(tables[source]) + " (" + (columns.empty() ? "unused" : columns) +
                               ")");
            if (source == buttonSource && !input.joinButton) continue;
            auto insert = connection.cachedStatement("INSERT INTO " + quote(tables[source]) +
                                                     (values.empty() ? " DEFAULT VALUES" : " VALUES (" + values + ")"));
            int index = 1;
            for (const Column& column : input.columns)
                if (column.source == source) bindColumn(*insert, index++, column);
            insert->execute();
        }
    });
}

// Columns [first, second) of the row.
using View = std::pair<int, int>;

// The model: field `i` of `Record` from `view`, nullopt when reading must fail. Missing or NULL is
// absent; other values convert as SQLite converts them (an enumeration's integer must name a case,
// a boolean is any integer but 0); a date is date text or seconds since 1970, floored to the
// millisecond, in years 0000...9999.
template <class Record>
std::optional<FieldValue> expected(sqlite3_stmt* row, View view, std::size_t i) {
    using Value = std::optional<FieldValue>;
    const FieldDescriptor& field = fieldDescriptors<Record>[i];
    int at = view.first;
    while (at < view.second && !equalsIgnoringCase(sqlite3_column_name(row, at), field.name)) ++at;
    const int type = at < view.second ? sqlite3_column_type(row, at) : SQLITE_NULL;
    if (type == SQLITE_NULL) return field.optional ? Value(std::monostate{}) : std::nullopt;
    const auto bytesOf = [&](const void* data) {
        const auto* begin = static_cast<const std::uint8_t*>(data);
        return Bytes(begin, begin + (begin != nullptr ? sqlite3_column_bytes(row, at) : 0));
    };
    switch (field.type) {
        case FieldType::integer:
            return sqlite3_column_int64(row, at);
        case FieldType::enumeration: {
            const std::int64_t raw = sqlite3_column_int64(row, at);
            const std::int64_t cases = field.name == "status" ? 3 : field.name == "notificationKind" ? 5 : 7;
            return raw >= 0 && raw < cases ? Value(raw) : std::nullopt;
        }
        case FieldType::boolean:
            return sqlite3_column_int64(row, at) != 0;
        case FieldType::text: {
            const Bytes text = bytesOf(sqlite3_column_text(row, at));
            return std::string(text.begin(), text.end());
        }
        case FieldType::bytes:
            return bytesOf(sqlite3_column_blob(row, at));
        case FieldType::date:
            break;
    }
    if (type == SQLITE_TEXT) {
        const Bytes text = bytesOf(sqlite3_column_text(row, at));
        return fuzz::modelDateText(std::string(text.begin(), text.end()));
    }
    if (type == SQLITE_BLOB) return std::nullopt;
    const double ms = std::floor(sqlite3_column_double(row, at) * 1000);
    return ms >= fuzz::earliest && ms < fuzz::latest ? Value(fuzz::at(std::int64_t(ms))) : std::nullopt;
}

// A record's values by the model, and the first field to fail (empty when it reads).
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

// A record that was read holds the model's values.
template <class Record>
void checkRecord(const Record& record, const Expected<Record>& model) {
    FUZZ_CHECK(model.failing.empty(), "read, but must fail at " + std::string(model.failing));
    const RecordValues<Record> values = encodeRecord(record);
    for (std::size_t i = 0; i < values.size(); ++i)
        FUZZ_CHECK(values[i] == model.values[i], "field " + std::string(fieldDescriptors<Record>[i].name));
}

void readRow(Connection& connection, const Input& input) {
    // The store's joined read, every row with the one button row; the model reads a run of its own
    // (reading a value as another type converts it in place).
    const std::string joined(joinedSelect), query = joined.substr(0, joined.find(" ON ")) + " ON 1";
    auto statement = connection.cachedStatement(query), modelRun = connection.cachedStatement(query + " ");
    FUZZ_CHECK(statement->step() && modelRun->step(), "the joined query gave no row");
    const Row row = statement->row();
    sqlite3_stmt* handle = modelRun->row().handle();

    // The notification's columns, then the button's.
    int split = 0;
    for (const Column& column : input.columns) split += column.source == notificationSource ? 1 : 0;
    if (split == 0) split = 1;  // the placeholder column of an empty table
    const View notificationPart{0, split}, buttonPart{split, row.end()};
    bool hasButton = false;
    for (int i = buttonPart.first; i < buttonPart.second; ++i)
        hasButton |= sqlite3_column_type(handle, i) != SQLITE_NULL;
    const Expected<NotificationModel> notification(handle, notificationPart);
    const Expected<NotificationButton> actionButton(handle, buttonPart);
    const auto failing = notification.failing.empty() && hasButton ? actionButton.failing : notification.failing;
    const std::string outcome = !notification.failing.empty() ? "notification." + std::string(failing)
                                : !failing.empty()            ? "notificationButton." + std::string(failing)
                                                              : "reads";
    FUZZ_CHECK(!fuzz::replaying || input.declared == outcome,
               "the seed declares '" + input.declared + "', the model gives " + outcome);
    // A refusal must name the first field the model finds failing.
    try {
        NotificationModelInfo info(RecordCoding<NotificationModel>::blank());
        JoinedRow(connection, row).read(info);
        checkRecord(info.notification, notification);
        FUZZ_CHECK(info.actionButton.has_value() == hasButton, "a button dropped or made up");
        if (info.actionButton) checkRecord(*info.actionButton, actionButton);
    } catch (const RecordDecodingError& error) {
        FUZZ_CHECK(error.column() == failing, error.what() + std::string("; model: ") + std::string(failing));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // Every input commits a write: a memory file system spares the disk.
    std::string pattern = access("/dev/shm", W_OK) == 0 ? "/dev/shm/fuzz_row.XXXXXX" : "/tmp/fuzz_row.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    directory = pattern;
    std::atexit([] {
        std::error_code ignored;
        pool.reset(), std::filesystem::remove_all(directory, ignored);
    });
    pool = std::make_unique<DatabasePool>(directory / "rows.sqlite", Configuration{});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Input input = parseInput(std::string_view(reinterpret_cast<const char*>(data), size));
    if (input.columns.empty()) return 0;
    try {
        storeRow(input);
    } catch (const DatabaseError& error) {
        // Tables SQLite refuses (a name twice, a NULL in a NOT NULL column) cannot be read; seeds can.
        FUZZ_CHECK(!fuzz::replaying, std::string("the seed's tables cannot be made: ") + error.what());
        return 0;
    }
    pool->read([&](Connection& connection) { readRow(connection, input); });
    return 0;
}
