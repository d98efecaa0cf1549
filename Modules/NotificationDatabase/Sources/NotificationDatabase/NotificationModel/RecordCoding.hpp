#pragma once

#include <NotificationDatabase/DatabaseError.hpp>
#include <NotificationDatabase/NotificationModel/DateText.hpp>

#include <array>
#include <concepts>
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

// One field's value as a view of the record's own storage, text and bytes by address: what row
// writing binds without copying. Valid while the record lives unchanged.
using FieldView = std::variant<std::monostate, std::int64_t, const std::string*, Timestamp, bool, const Bytes*>;

// The keyed value of a view: text and bytes copied.
inline FieldValue toFieldValue(const FieldView& view) {
    switch (view.index()) {
        case 1:
            return std::get<1>(view);
        case 2:
            return *std::get<2>(view);
        case 3:
            return std::get<3>(view);
        case 4:
            return std::get<4>(view);
        case 5:
            return *std::get<5>(view);
        default:
            return std::monostate{};
    }
}

// A field of a record: its key (also its column name), its kind and whether it may be absent.
struct FieldDescriptor {
    std::string_view name;  // the key, and the column's name
    FieldType type;         // the kind of value
    bool optional;          // whether the value may be absent
};

// The keyed coding of a record type: each record lists its fields once, and row writing, row
// reading, INSERT, update-or-insert and any other keyed format (the tool's JSON) derive from
// that list. A specialisation provides:
//
//   static constexpr std::string_view tableName;
//   static constexpr std::array<FieldDescriptor, N> fields;  // declaration order; "id" first
//   static FieldView view(const Record&, std::size_t fieldIndex);
//   static FieldValue encode(const Record&, std::size_t fieldIndex);  // toFieldValue(view(...))
//   // Builds a record from a source of field values (see `FieldSource`); throws
//   // `RecordDecodingError` when a required value is absent or a value does not fit its field.
//   // The library's records provide it for `FieldValues` and `RowFields`.
//   template <FieldSource Source> static Record decode(Source& source);
//   // The same into a record whose fields start out absent or empty (the library's own
//   // readers build it in place); on failure it holds a part of the values.
//   template <FieldSource Source> static void decode(Source& source, Record& record);
//   // The same from one keyed value per field (moved from).
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

// Where `decode` takes its values from: field `i` of the record as `Value` (std::int64_t for
// integers and enumerations, std::string, Timestamp, bool, Bytes). `required` throws
// `RecordDecodingError` naming the field when the value is absent or cannot be a `Value`;
// `optional` gives nullopt for an absent value. Both also come in a form that stores the value
// into a given member (`required(i, text)`, `optional(i, title)`), so that text and bytes need
// not pass through a temporary. A record's decoding is written once against this interface
// and serves keyed values (`FieldValues`) and database rows alike.
template <class Source>
concept FieldSource = requires(Source& source, std::size_t i, std::string& text, std::optional<std::string>& title) {
    { source.template required<std::int64_t>(i) } -> std::same_as<std::int64_t>;
    { source.template optional<std::string>(i) } -> std::same_as<std::optional<std::string>>;
    source.required(i, text);
    source.optional(i, title);
};

// A `FieldSource` over one keyed value per field; values are moved out as they are taken.
template <std::size_t N>
class FieldValues {
public:
    // Takes its values from `values`, which must outlive it; `table` and `fields` name them in errors.
    FieldValues(std::array<FieldValue, N>& values, std::string_view table,
                const std::array<FieldDescriptor, N>& fields) noexcept
        : values_(values), table_(table), fields_(fields) {}

    // The `FieldSource` operations, each taking field `i`'s value out of the array.
    // @{
    template <class Value>
    Value required(std::size_t i) {
        return requiredValue<Value>(values_[i], table_, fields_[i].name);
    }
    template <class Value>
    std::optional<Value> optional(std::size_t i) {
        return optionalValue<Value>(values_[i], table_, fields_[i].name);
    }
    template <class Value>
    void required(std::size_t i, Value& out) {
        out = required<Value>(i);
    }
    template <class Value>
    void optional(std::size_t i, std::optional<Value>& out) {
        out = optional<Value>(i);
    }
    // @}

private:
    std::array<FieldValue, N>& values_;
    std::string_view table_;
    const std::array<FieldDescriptor, N>& fields_;
};

// Every field of `record`, in field order.
template <class Record>
RecordValues<Record> encodeRecord(const Record& record) {
    RecordValues<Record> values;
    for (std::size_t i = 0; i < values.size(); ++i) values[i] = RecordCoding<Record>::encode(record, i);
    return values;
}

}  // namespace notificationdb
