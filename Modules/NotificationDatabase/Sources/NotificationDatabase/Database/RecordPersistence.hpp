#pragma once

#include <NotificationDatabase/Database/Connection.hpp>
#include <NotificationDatabase/Database/Statement.hpp>
#include <NotificationDatabase/NotificationModel/RecordCoding.hpp>

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace notificationdb {

namespace detail {

// Throws the `RecordDecodingError` of a required field whose column is NULL or missing.
[[noreturn]] void throwMissing(std::string_view table, std::string_view field, bool columnMissing);

// Conversions of the non-NULL value in column `index` of `row`, whose storage class is `type`;
// each throws `RecordDecodingError` naming `table` and `field` when the value cannot take the
// kind. Integers also come from whole REAL values, booleans from any number, byte strings
// from BLOB or TEXT, dates from date text or seconds since 1970.
std::int64_t integerColumn(const Row& row, int index, ColumnType type, std::string_view table, std::string_view field);
bool booleanColumn(const Row& row, int index, ColumnType type, std::string_view table, std::string_view field);
std::string textColumn(const Row& row, int index, ColumnType type, std::string_view table, std::string_view field);
Bytes bytesColumn(const Row& row, int index, ColumnType type, std::string_view table, std::string_view field);
Timestamp dateColumn(const Row& row, int index, ColumnType type, std::string_view table, std::string_view field);

template <class Value>
Value columnValue(const Row& row, int index, ColumnType type, std::string_view table, std::string_view field) {
    if constexpr (std::is_same_v<Value, std::int64_t>) {
        return integerColumn(row, index, type, table, field);
    } else if constexpr (std::is_same_v<Value, bool>) {
        return booleanColumn(row, index, type, table, field);
    } else if constexpr (std::is_same_v<Value, std::string>) {
        return textColumn(row, index, type, table, field);
    } else if constexpr (std::is_same_v<Value, Bytes>) {
        return bytesColumn(row, index, type, table, field);
    } else {
        static_assert(std::is_same_v<Value, Timestamp>, "a field value is an integer, bool, text, bytes or date");
        return dateColumn(row, index, type, table, field);
    }
}

// Binds `value` in its storage form, text and bytes without a copy (see
// `Statement::bindNoCopy`). Throws `DatabaseError`, or `RecordDecodingError` naming `table` and
// `field` for a date that has no stored form.
void bindFieldView(Statement& statement, int index, const FieldView& value, std::string_view table,
                   std::string_view field);
// "INSERT INTO "t" ("a", "b") VALUES (?, ?)"
std::string makeInsertSQL(std::string_view table, std::span<const FieldDescriptor> fields);
// "UPDATE "t" SET "b" = ?, ... WHERE "id" = ?" (every field but the first, the primary key)
std::string makeUpdateSQL(std::string_view table, std::span<const FieldDescriptor> fields);

template <class Record>
std::array<std::string_view, RecordCoding<Record>::fields.size()> fieldNames() {
    std::array<std::string_view, RecordCoding<Record>::fields.size()> names;
    for (std::size_t i = 0; i < names.size(); ++i) names[i] = RecordCoding<Record>::fields[i].name;
    return names;
}

}  // namespace detail

// A `FieldSource` reading straight from the columns of a row: field `i` is the column at
// `indexes[i]` (-1 when the row has no such column, which reads as absent). Text and bytes go
// straight into the record's member; the common storage class of each kind is read inline.
class RowFields {
public:
    RowFields(Row row, std::span<const int> indexes, std::string_view table,
              std::span<const FieldDescriptor> fields) noexcept
        : row_(row), indexes_(indexes), table_(table), fields_(fields) {}

    template <class Value>
    Value required(std::size_t i) {
        const int index = indexes_[i];
        const ColumnType type = typeAt(index);
        if (type == ColumnType::null) missing(i, index);
        return value<Value>(i, index, type);
    }
    template <class Value>
    std::optional<Value> optional(std::size_t i) {
        const int index = indexes_[i];
        const ColumnType type = typeAt(index);
        if (type == ColumnType::null) return std::nullopt;
        return value<Value>(i, index, type);
    }
    template <class Value>
    void required(std::size_t i, Value& out) {
        const int index = indexes_[i];
        const ColumnType type = typeAt(index);
        if (type == ColumnType::null) missing(i, index);
        assign(i, index, type, out);
    }
    template <class Value>
    void optional(std::size_t i, std::optional<Value>& out) {
        const int index = indexes_[i];
        const ColumnType type = typeAt(index);
        if (type == ColumnType::null) {
            out.reset();
        } else {
            assign(i, index, type, out ? *out : out.emplace());
        }
    }

private:
    ColumnType typeAt(int index) const noexcept { return index < 0 ? ColumnType::null : row_.type(index); }
    [[noreturn]] void missing(std::size_t i, int index) const {
        detail::throwMissing(table_, fields_[i].name, index < 0);
    }
    template <class Value>
    Value value(std::size_t i, int index, ColumnType type) {
        if constexpr (std::is_same_v<Value, std::int64_t>) {
            if (type == ColumnType::integer) return row_.int64(index);
        } else if constexpr (std::is_same_v<Value, bool>) {
            if (type == ColumnType::integer) return row_.int64(index) != 0;
        } else if constexpr (std::is_same_v<Value, Timestamp>) {
            if (type == ColumnType::text) {
                if (const auto date = parseDateText(row_.text(index))) return *date;
            }
        }
        return detail::columnValue<Value>(row_, index, type, table_, fields_[i].name);
    }
    template <class Value>
    void assign(std::size_t i, int index, ColumnType type, Value& out) {
        if constexpr (std::is_same_v<Value, std::string>) {
            if (type == ColumnType::text) {
                out.assign(row_.text(index));
                return;
            }
        } else if constexpr (std::is_same_v<Value, Bytes>) {
            if (type == ColumnType::blob) {
                const auto bytes = row_.blob(index);
                out.assign(bytes.begin(), bytes.end());
                return;
            }
        }
        out = value<Value>(i, index, type);
    }

    Row row_;
    std::span<const int> indexes_;
    std::string_view table_;
    std::span<const FieldDescriptor> fields_;
};

// Where the columns of `Record`'s fields stand in `row` (see `RowFields`), looked up once per
// statement preparation and view.
template <class Record>
std::span<const int> columnsOf(const Row& row) {
    static const auto names = detail::fieldNames<Record>();
    return row.resolve(&names, names);
}

// Reads a record from `row` by column name: columns may stand in any order, extra columns are
// ignored, a missing or NULL column gives an absent field. Throws `RecordDecodingError`.
template <class Record>
Record readRecord(const Row& row) {
    using Coding = RecordCoding<Record>;
    RowFields fields(row, columnsOf<Record>(row), Coding::tableName, Coding::fields);
    return Coding::decode(fields);
}

// Binds every field of `record` to parameters `firstIndex`, `firstIndex + 1`, ... in field
// order; with `skipPrimaryKey` the first field is left out. Text and bytes are bound without a
// copy: the record must outlive the statement's run (until the statement is reset).
template <class Record>
void bindRecord(Statement& statement, const Record& record, int firstIndex = 1, bool skipPrimaryKey = false) {
    using Coding = RecordCoding<Record>;
    int index = firstIndex;
    for (std::size_t i = skipPrimaryKey ? 1 : 0; i < Coding::fields.size(); ++i) {
        detail::bindFieldView(statement, index++, Coding::view(record, i), Coding::tableName, Coding::fields[i].name);
    }
}
template <class Record>
void bindRecord(Statement& statement, const Record&& record, int firstIndex = 1, bool skipPrimaryKey = false) = delete;

// Plain INSERT of every column (conflict resolution ABORT); returns the new row's id. Throws
// `DatabaseError` on failure.
template <class Record>
std::int64_t insertRow(Connection& connection, const Record& record) {
    using Coding = RecordCoding<Record>;
    static const StatementKey sql(detail::makeInsertSQL(Coding::tableName, Coding::fields));
    auto statement = connection.cachedStatement(sql);
    bindRecord(*statement, record);
    statement->execute();
    return connection.lastInsertedRowID();
}

// The same, and on success the record's id is the new row id; on failure the record is left
// unchanged.
template <class Record>
void insertRecord(Connection& connection, Record& record) {
    RecordCoding<Record>::didInsert(record, insertRow(connection, record));
}

// Update-or-insert: a record without id is inserted; otherwise every column but "id" is
// updated where "id" matches, and when no row matched the record is inserted with its id.
template <class Record>
void saveRecord(Connection& connection, Record& record) {
    using Coding = RecordCoding<Record>;
    const std::optional<std::int64_t> key = Coding::primaryKey(record);
    if (!key) {
        insertRecord(connection, record);
        return;
    }
    static const StatementKey sql(detail::makeUpdateSQL(Coding::tableName, Coding::fields));
    {
        auto statement = connection.cachedStatement(sql);
        bindRecord(*statement, record, 1, true);
        statement->bind(static_cast<int>(Coding::fields.size()), *key);
        statement->execute();
    }
    if (connection.changedRowCount() == 0) insertRecord(connection, record);
}

}  // namespace notificationdb
