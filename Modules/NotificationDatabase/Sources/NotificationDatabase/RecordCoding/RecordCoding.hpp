#pragma once

#include <NotificationDatabase/Export.hpp>
#include <NotificationDatabase/RecordCoding/EnumerationCases.hpp>
#include <NotificationDatabase/RecordCoding/Timestamp.hpp>

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
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

// A field as keyed formats see it: its key (also its column name), its kind and whether it may
// be absent.
struct FieldDescriptor {
    std::string_view name;  // the key, and the column's name
    FieldType type;         // the kind of value
    bool optional;          // whether the value may be absent
};

// A value could not be read into a record's field: a required value is absent, or a value has a
// type or content that the field cannot take. The text names the table and the column, never the
// value.
class NOTIFICATIONDB_API RecordDecodingError : public std::runtime_error {
public:
    // Says which column of which table could not be read, and why.
    RecordDecodingError(std::string_view table, std::string_view column, std::string_view reason);

    const std::string& column() const noexcept { return column_; }  // the column that could not be read

private:
    std::string column_;
};

// A record's field holds a value that its column cannot store. The text names the table and the
// column, never the value.
class NOTIFICATIONDB_API RecordEncodingError : public std::runtime_error {
public:
    // Says which column of which table could not be written, and why.
    RecordEncodingError(std::string_view table, std::string_view column, std::string_view reason);
};

// A field of `Record`: its key and the member that holds it.
template <class Record, class Member>
struct Field {
    using Type = Member;     // the member's type
    std::string_view name;   // the key, and the column's name
    Member Record::*member;  // where the record holds the value
};
template <class Record, class Member>
Field(std::string_view, Member Record::*) -> Field<Record, Member>;

// The keyed coding of a record type. Each record lists its fields once, in declaration order with
// the row id first, and row writing, row reading, INSERT, update-or-insert and any other keyed
// format (the tool's JSON) derive from that list:
//
//   template <> struct RecordCoding<Notification> {
//       static constexpr std::string_view tableName = "notification";
//       static constexpr std::tuple fields{Field{"id", &Notification::id_}, Field{"title", &Notification::title}};
//       static Notification blank() { return {}; }  // every field absent, empty, false or zero
//   };
//
// A member is an `std::int64_t`, `std::string`, `Timestamp`, `bool`, `Bytes` or `CaseEnumeration`,
// or an `std::optional` of one for a field that may be absent; the row id is an optional integer.
template <class Record>
struct RecordCoding;

namespace detail {

template <class T>
struct Unwrapped {
    using Type = T;
    static constexpr bool optional = false;
};
template <class T>
struct Unwrapped<std::optional<T>> {
    using Type = T;
    static constexpr bool optional = true;
};

template <class T>
constexpr FieldType fieldType() {
    if constexpr (CaseEnumeration<T>) {
        return FieldType::enumeration;
    } else if constexpr (std::is_same_v<T, std::int64_t>) {
        return FieldType::integer;
    } else if constexpr (std::is_same_v<T, std::string>) {
        return FieldType::text;
    } else if constexpr (std::is_same_v<T, Timestamp>) {
        return FieldType::date;
    } else if constexpr (std::is_same_v<T, bool>) {
        return FieldType::boolean;
    } else {
        static_assert(std::is_same_v<T, Bytes>, "a field holds an integer, text, date, boolean, enumeration or bytes");
        return FieldType::bytes;
    }
}

template <class T>
FieldValue toFieldValue(const T& value) {
    if constexpr (Unwrapped<T>::optional) {
        return value ? toFieldValue(*value) : FieldValue();
    } else if constexpr (CaseEnumeration<T>) {
        return rawValue(value);
    } else {
        return value;
    }
}

}  // namespace detail

template <class Record>
inline constexpr std::size_t fieldCount = std::tuple_size_v<decltype(RecordCoding<Record>::fields)>;

// The fields of `Record` as keyed formats see them, in declaration order.
template <class Record>
inline constexpr std::array<FieldDescriptor, fieldCount<Record>> fieldDescriptors = std::apply(
    [](const auto&... field) {
        return std::array{FieldDescriptor{
            field.name,
            detail::fieldType<typename detail::Unwrapped<typename std::decay_t<decltype(field)>::Type>::Type>(),
            detail::Unwrapped<typename std::decay_t<decltype(field)>::Type>::optional}...};
    },
    RecordCoding<Record>::fields);

// One keyed value per field of `Record`, in field order.
template <class Record>
using RecordValues = std::array<FieldValue, fieldCount<Record>>;

// Every field of `record`, in field order.
template <class Record>
RecordValues<Record> encodeRecord(const Record& record) {
    return std::apply(
        [&record](const auto&... field) { return RecordValues<Record>{detail::toFieldValue(record.*field.member)...}; },
        RecordCoding<Record>::fields);
}

// Where decoding takes the values of a record's fields from. `required(i, out)` stores the value
// of field `i` into `out` (an `std::int64_t`, `std::string`, `Timestamp`, `bool` or `Bytes`) and
// throws `RecordDecodingError` naming the field when the value is absent or cannot be of that
// type; `optional(i, out)` does the same for a field that may be absent, leaving `out` empty
// then. Decoding is written once against this and serves keyed values (`FieldValues`) and
// database rows alike.
template <class Source>
concept FieldSource = requires(Source& source, std::size_t i, std::int64_t& integer, std::optional<std::string>& text) {
    source.required(i, integer);
    source.optional(i, text);
};

namespace detail {

template <class Record, class Source, class Member>
void decodeField(Source& source, std::size_t i, const Field<Record, Member>& field, Record& record) {
    using Value = typename Unwrapped<Member>::Type;
    Member& out = record.*field.member;
    if constexpr (CaseEnumeration<Value>) {
        std::optional<std::int64_t> raw;
        if constexpr (Unwrapped<Member>::optional) {
            source.optional(i, raw);
            if (!raw) return out.reset();
        } else {
            source.required(i, raw.emplace());
        }
        const auto value = fromRawValue<Value>(*raw);
        if (!value) {
            throw RecordDecodingError(RecordCoding<Record>::tableName, field.name,
                                      "integer is no " + std::string(EnumerationCases<Value>::typeName));
        }
        out = *value;
    } else if constexpr (Unwrapped<Member>::optional) {
        source.optional(i, out);
    } else {
        source.required(i, out);
    }
}

}  // namespace detail

// Reads every field of `record` from `source`, in field order; throws `RecordDecodingError` at the
// first field that cannot be read, leaving the record with a part of the values.
template <class Record, FieldSource Source>
void decodeRecord(Source& source, Record& record) {
    [&]<std::size_t... I>(std::index_sequence<I...>) {
        (detail::decodeField(source, I, std::get<I>(RecordCoding<Record>::fields), record), ...);
    }
    (std::make_index_sequence<fieldCount<Record>>());
}

template <class Record, FieldSource Source>
Record decodeRecord(Source& source) {
    Record record = RecordCoding<Record>::blank();
    decodeRecord(source, record);
    return record;
}

// A `FieldSource` over one keyed value per field; values are moved out as they are taken.
template <class Record>
class FieldValues {
public:
    // Takes its values from `values`, which must outlive it.
    explicit FieldValues(RecordValues<Record>& values) noexcept : values_(values) {}

    // The `FieldSource` operations, each taking field `i`'s value out of the array.
    // @{
    template <class Value>
    void required(std::size_t i, Value& out) {
        if (auto* present = std::get_if<Value>(&values_[i])) {
            out = std::move(*present);
            return;
        }
        throw RecordDecodingError(RecordCoding<Record>::tableName, fieldDescriptors<Record>[i].name,
                                  values_[i].index() == 0 ? "required value is absent" : "value has the wrong type");
    }
    template <class Value>
    void optional(std::size_t i, std::optional<Value>& out) {
        if (values_[i].index() == 0) return out.reset();
        required(i, out.emplace());
    }
    // @}

private:
    RecordValues<Record>& values_;
};

// The record of one keyed value per field (moved from); throws `RecordDecodingError` when a
// required value is absent or a value does not fit its field.
template <class Record>
Record decodeRecord(RecordValues<Record>& values) {
    FieldValues<Record> source(values);
    return decodeRecord<Record>(source);
}

}  // namespace notificationdb
