#pragma once

#include <NotificationDatabase/Database/Connection.hpp>
#include <NotificationDatabase/Database/RecordCoding.hpp>
#include <NotificationDatabase/Database/Statement.hpp>

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace notificationdb {

namespace detail {

// The value of column `index` of `row` converted for `field`; absent for NULL or a missing
// column (index -1). Throws `RecordDecodingError` when the value cannot take the field's kind.
FieldValue readColumn(const Row& row, int index, const FieldDescriptor& field, std::string_view table);
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

// Reads a record from `row` by column name: columns may stand in any order, extra columns are
// ignored, a missing or NULL column gives an absent field. Throws `RecordDecodingError`.
template <class Record>
Record readRecord(const Row& row) {
    using Coding = RecordCoding<Record>;
    static const auto names = detail::fieldNames<Record>();
    const std::vector<int>& indexes = row.resolve(&names, names);
    RecordValues<Record> values;
    for (std::size_t i = 0; i < values.size(); ++i) {
        values[i] = detail::readColumn(row, indexes[i], Coding::fields[i], Coding::tableName);
    }
    return Coding::decode(values);
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
