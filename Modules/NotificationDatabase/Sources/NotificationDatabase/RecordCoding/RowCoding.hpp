#pragma once

// Records in database rows: reading a record from the columns of a row, binding its fields,
// INSERT and update-or-insert, all derived from the record's keyed coding.

#include <NotificationDatabase/Database/Connection.hpp>
#include <NotificationDatabase/Database/Statement.hpp>
#include <NotificationDatabase/RecordCoding/RecordCoding.hpp>

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace notificationdb {

namespace detail {

// Throws the `RecordDecodingError` of a required field whose column is NULL or missing.
[[noreturn]] void throwMissing(std::string_view table, std::string_view field, bool columnMissing);

// The date in column `index` of `row`, whose storage class is `type` (not NULL): date text, or a
// number of seconds since 1970. Throws `RecordDecodingError` naming `table` and `field` for
// anything else.
Timestamp dateColumn(const Row& row, int index, ColumnType type, std::string_view table, std::string_view field);

// Binds `value` in its storage form, text and bytes without a copy (see
// `Statement::bindNoCopy`). Throws `DatabaseError`, or `RecordEncodingError` naming `table` and
// `field` for a date that has no stored form.
void bindValue(Statement& statement, int index, std::int64_t value, std::string_view table, std::string_view field);
void bindValue(Statement& statement, int index, const std::string& value, std::string_view table,
               std::string_view field);
void bindValue(Statement& statement, int index, Timestamp value, std::string_view table, std::string_view field);
void bindValue(Statement& statement, int index, bool value, std::string_view table, std::string_view field);
void bindValue(Statement& statement, int index, const Bytes& value, std::string_view table, std::string_view field);
template <CaseEnumeration Enumeration>
void bindValue(Statement& statement, int index, Enumeration value, std::string_view table, std::string_view field) {
    bindValue(statement, index, rawValue(value), table, field);
}
template <class T>
void bindValue(Statement& statement, int index, const std::optional<T>& value, std::string_view table,
               std::string_view field) {
    if (value) return bindValue(statement, index, *value, table, field);
    statement.bindNull(index);
}

// "INSERT INTO "t" ("a", "b") VALUES (?, ?)"
std::string makeInsertSQL(std::string_view table, std::span<const FieldDescriptor> fields);
// "UPDATE "t" SET "b" = ?, ... WHERE "a" = ?" (every field but the first, the row id)
std::string makeUpdateSQL(std::string_view table, std::span<const FieldDescriptor> fields);

}  // namespace detail

// Where the columns of `Record`'s fields stand in `row`, by name (-1 for a missing column). A
// field's column is looked for at its own position in the part first: rows of the record's own
// table hold them in field order.
template <class Record>
std::array<int, fieldCount<Record>> columnsOf(const Row& row) {
    std::array<int, fieldCount<Record>> columns{};
    for (std::size_t i = 0; i < columns.size(); ++i)
        columns[i] = row.index(fieldDescriptors<Record>[i].name, row.begin() + static_cast<int>(i));
    return columns;
}

// A `FieldSource` reading straight from the columns of a row: field `i` is the column at
// `columns[i]` (-1 when the row has no such column, which reads as absent). A value that is not
// NULL takes its field's type as SQLite converts it: integers (and enumerations, and booleans, true
// for any integer but 0) as `sqlite3_column_int64` gives them, text as `sqlite3_column_text`,
// bytes as `sqlite3_column_blob`; dates are read from date text or a number of seconds since 1970.
// Text and bytes go straight into the record's member.
template <class Record>
class RowFields {
public:
    RowFields(const Row& row, std::span<const int> columns) noexcept : row_(row), columns_(columns) {}

    template <class Value>
    void required(std::size_t i, Value& out) {
        const int index = columns_[i];
        const ColumnType type = index < 0 ? ColumnType::null : row_.type(index);
        if (type == ColumnType::null) detail::throwMissing(table, fieldDescriptors<Record>[i].name, index < 0);
        read(i, index, type, out);
    }
    template <class Value>
    void optional(std::size_t i, std::optional<Value>& out) {
        const int index = columns_[i];
        const ColumnType type = index < 0 ? ColumnType::null : row_.type(index);
        if (type == ColumnType::null) return out.reset();
        read(i, index, type, out ? *out : out.emplace());
    }

private:
    static constexpr std::string_view table = RecordCoding<Record>::tableName;

    template <class Value>
    void read(std::size_t i, int index, ColumnType type, Value& out) {
        if constexpr (std::is_same_v<Value, std::int64_t>) {
            out = row_.int64(index);
        } else if constexpr (std::is_same_v<Value, bool>) {
            out = row_.int64(index) != 0;
        } else if constexpr (std::is_same_v<Value, std::string>) {
            out.assign(row_.text(index));
        } else if constexpr (std::is_same_v<Value, Bytes>) {
            const auto bytes = row_.blob(index);
            out.assign(bytes.begin(), bytes.end());
        } else {
            static_assert(std::is_same_v<Value, Timestamp>);
            const auto date = type == ColumnType::text ? parseDateText(row_.text(index)) : std::nullopt;
            out = date ? *date : detail::dateColumn(row_, index, type, table, fieldDescriptors<Record>[i].name);
        }
    }

    Row row_;
    std::span<const int> columns_;
};

// Reads a record from `row` into `record`, whose fields start out absent or empty, taking field
// `i` from the column at `columns[i]`. Throws `RecordDecodingError`.
template <class Record>
void readRecord(const Row& row, std::span<const int> columns, Record& record) {
    RowFields<Record> fields(row, columns);
    decodeRecord(fields, record);
}

// Reads a record from `row` by column name: columns may stand in any order, extra columns are
// ignored, a missing or NULL column gives an absent field. Throws `RecordDecodingError`.
template <class Record>
Record readRecord(const Row& row) {
    const auto columns = columnsOf<Record>(row);
    Record record = RecordCoding<Record>::blank();
    readRecord(row, columns, record);
    return record;
}

// Binds every field of `record` to parameters `firstIndex`, `firstIndex + 1`, ... in field
// order; with `skipRowID` the first field is left out. Text and bytes are bound without a copy:
// the record must outlive the statement's run (until the statement is reset).
template <class Record>
void bindRecord(Statement& statement, const Record& record, int firstIndex = 1, bool skipRowID = false) {
    std::apply(
        [&](const auto& rowID, const auto&... rest) {
            int index = firstIndex;
            if (!skipRowID)
                detail::bindValue(statement, index++, record.*rowID.member, RecordCoding<Record>::tableName,
                                  rowID.name);
            (detail::bindValue(statement, index++, record.*rest.member, RecordCoding<Record>::tableName, rest.name),
             ...);
        },
        RecordCoding<Record>::fields);
}
template <class Record>
void bindRecord(Statement& statement, const Record&& record, int firstIndex = 1, bool skipRowID = false) = delete;

// The row id of a record: its first field.
template <class Record>
std::optional<std::int64_t>& rowIDOf(Record& record) {
    return record.*std::get<0>(RecordCoding<Record>::fields).member;
}

// Plain INSERT of every column (conflict resolution ABORT); returns the new row's id. Throws
// `DatabaseError` on failure.
template <class Record>
std::int64_t insertRow(Connection& connection, const Record& record) {
    static const std::string sql = detail::makeInsertSQL(RecordCoding<Record>::tableName, fieldDescriptors<Record>);
    auto statement = connection.cachedStatement(sql);
    bindRecord(*statement, record);
    statement->execute();
    return connection.lastInsertedRowID();
}

// Update-or-insert: a record without row id is inserted; otherwise every column but the row id
// is updated where the row id matches, and when no row matched the record is inserted with its
// row id. After an insert the record's row id is the new row's.
template <class Record>
void saveRecord(Connection& connection, Record& record) {
    if (rowIDOf(record)) {
        static const std::string sql = detail::makeUpdateSQL(RecordCoding<Record>::tableName, fieldDescriptors<Record>);
        {
            auto statement = connection.cachedStatement(sql);
            bindRecord(*statement, record, 1, true);
            statement->bind(static_cast<int>(fieldCount<Record>), *rowIDOf(record));
            statement->execute();
        }
        if (connection.changedRowCount() > 0) return;
    }
    rowIDOf(record) = insertRow(connection, record);
}

}  // namespace notificationdb
