#pragma once

#include <NotificationDatabase/Database/DatabaseError.hpp>
#include <NotificationDatabase/Database/DateText.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace notificationdb {

// A byte string, stored as a BLOB.
using Bytes = std::vector<std::uint8_t>;

// The kind of value a field holds; decides its storage form in SQLite:
// integer INTEGER, text TEXT, date TEXT of 23 characters in UTC, boolean INTEGER 0 or 1,
// enumeration INTEGER raw value, bytes BLOB. An absent value is NULL.
enum class FieldType { integer, text, date, boolean, enumeration, bytes };

// One field's value in keyed coding. `std::monostate` is absent. Enumerations travel as their
// integer raw values.
using FieldValue = std::variant<std::monostate, std::int64_t, std::string, Timestamp, bool, Bytes>;

// A field of a record: its key (also its column name), its kind and whether it may be absent.
struct FieldDescriptor {
    std::string_view name;
    FieldType type;
    bool optional;
};

// The keyed coding of a record type: each record lists its fields once, and row writing, row
// reading, INSERT, update-or-insert and any other keyed format (the tool's JSON) derive from
// that list. A specialisation provides:
//
//   static constexpr std::string_view tableName;
//   static constexpr std::array<FieldDescriptor, N> fields;  // declaration order; "id" first
//   static FieldValue encode(const Record&, std::size_t fieldIndex);
//   // Builds a record from one value per field (moved from); throws `RecordDecodingError`
//   // when a required value is absent or a value does not fit its field.
//   static Record decode(std::array<FieldValue, N>& values);
//   static std::optional<std::int64_t> primaryKey(const Record&);
//   static void didInsert(Record&, std::int64_t rowID);  // the insert hook
template <class Record>
struct RecordCoding;

template <class Record>
using RecordValues = std::array<FieldValue, RecordCoding<Record>::fields.size()>;

// For `decode`: the value of a required field, moved out; throws `RecordDecodingError` naming
// the field when it is absent or of another kind.
template <class Value>
Value requiredValue(FieldValue& value, std::string_view table, std::string_view field) {
    if (auto* present = std::get_if<Value>(&value)) return std::move(*present);
    throw RecordDecodingError(
        table, field,
        std::holds_alternative<std::monostate>(value) ? "required value is absent" : "value has the wrong type");
}

// For `decode`: the value of an optional field, moved out; nullopt when absent.
template <class Value>
std::optional<Value> optionalValue(FieldValue& value, std::string_view table, std::string_view field) {
    if (std::holds_alternative<std::monostate>(value)) return std::nullopt;
    return requiredValue<Value>(value, table, field);
}

// Every field of `record`, in field order.
template <class Record>
RecordValues<Record> encodeRecord(const Record& record) {
    RecordValues<Record> values;
    for (std::size_t i = 0; i < values.size(); ++i) values[i] = RecordCoding<Record>::encode(record, i);
    return values;
}

}  // namespace notificationdb
