#pragma once

#include <NotificationDatabase/Database/Connection.hpp>
#include <NotificationDatabase/NotificationModel/RecordCoding.hpp>
#include <NotificationDatabase/Database/Statement.hpp>

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

// Binds `value` in its storage form. Throws `DatabaseError`, or `RecordDecodingError` for a date
// that has no stored form.
void bindFieldValue(Statement& statement, int index, const FieldValue& value, const FieldDescriptor& field,
                    std::string_view table);
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
// `indexes[i]` (-1 when the row has no such column, which reads as absent).
class RowFields {
public:
    RowFields(const Row& row, std::span<const int> indexes, std::string_view table,
              std::span<const FieldDescriptor> fields) noexcept
        : row_(row), indexes_(indexes), table_(table), fields_(fields) {}

    template <class Value>
    Value required(std::size_t i) {
        const int index = indexes_[i];
        const ColumnType type = index < 0 ? ColumnType::null : row_.type(index);
        if (type == ColumnType::null) {
            throw RecordDecodingError(table_, fields_[i].name,
                                      index < 0 ? "column is missing" : "required value is NULL");
        }
        return detail::columnValue<Value>(row_, index, type, table_, fields_[i].name);
    }
    template <class Value>
    std::optional<Value> optional(std::size_t i) {
        const int index = indexes_[i];
        const ColumnType type = index < 0 ? ColumnType::null : row_.type(index);
        if (type == ColumnType::null) return std::nullopt;
        return detail::columnValue<Value>(row_, index, type, table_, fields_[i].name);
    }

private:
    const Row& row_;
    std::span<const int> indexes_;
    std::string_view table_;
    std::span<const FieldDescriptor> fields_;
};

// Reads a record from `row` by column name: columns may stand in any order, extra columns are
// ignored, a missing or NULL column gives an absent field. Throws `RecordDecodingError`.
template <class Record>
Record readRecord(const Row& row) {
    using Coding = RecordCoding<Record>;
    static const auto names = detail::fieldNames<Record>();
    RowFields fields(row, row.resolve(&names, names), Coding::tableName, Coding::fields);
    return Coding::decode(fields);
}

// Binds every field of `record` to parameters `firstIndex`, `firstIndex + 1`, ... in field
// order; with `skipPrimaryKey` the first field is left out.
template <class Record>
void bindRecord(Statement& statement, const Record& record, int firstIndex = 1, bool skipPrimaryKey = false) {
    using Coding = RecordCoding<Record>;
    int index = firstIndex;
    for (std::size_t i = skipPrimaryKey ? 1 : 0; i < Coding::fields.size(); ++i) {
        detail::bindFieldValue(statement, index++, Coding::encode(record, i), Coding::fields[i], Coding::tableName);
    }
}

// Plain INSERT of every column (conflict resolution ABORT); on success the record's id is the
// new row id. Throws `DatabaseError` and leaves the record unchanged on failure.
template <class Record>
void insertRecord(Connection& connection, Record& record) {
    using Coding = RecordCoding<Record>;
    static const std::string sql = detail::makeInsertSQL(Coding::tableName, Coding::fields);
    auto statement = connection.cachedStatement(sql);
    bindRecord(*statement, record);
    statement->execute();
    Coding::didInsert(record, connection.lastInsertedRowID());
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
    static const std::string sql = detail::makeUpdateSQL(Coding::tableName, Coding::fields);
    {
        auto statement = connection.cachedStatement(sql);
        bindRecord(*statement, record, 1, true);
        statement->bind(static_cast<int>(Coding::fields.size()), *key);
        statement->execute();
    }
    if (connection.changedRowCount() == 0) insertRecord(connection, record);
}

}  // namespace notificationdb
