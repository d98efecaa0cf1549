#include "NotificationDatabase/Database/RecordPersistence.hpp"

#include "NotificationDatabase/DatabaseError.hpp"

#include <cmath>
#include <limits>

namespace notificationdb::detail {

namespace {

void appendQuoted(std::string& sql, std::string_view identifier) {
    sql += '"';
    for (char c : identifier) {
        if (c == '"') sql += '"';
        sql += c;
    }
    sql += '"';
}

}  // namespace

std::int64_t integerColumn(const Row& row, int index, ColumnType type, std::string_view table, std::string_view field) {
    if (type == ColumnType::integer) return row.int64(index);
    if (type == ColumnType::real) {
        const double value = row.real(index);
        // 2^63 is exactly representable; anything at or beyond it does not fit.
        constexpr double limit = 9223372036854775808.0;
        if (std::isfinite(value) && std::trunc(value) == value && value >= -limit && value < limit) {
            return static_cast<std::int64_t>(value);
        }
    }
    throw RecordDecodingError(table, field, "value is not an integer");
}

bool booleanColumn(const Row& row, int index, ColumnType type, std::string_view table, std::string_view field) {
    if (type == ColumnType::integer) return row.int64(index) != 0;
    if (type == ColumnType::real) return row.real(index) != 0.0;
    throw RecordDecodingError(table, field, "value is not a boolean");
}

std::string textColumn(const Row& row, int index, ColumnType type, std::string_view table, std::string_view field) {
    if (type == ColumnType::text) return std::string(row.text(index));
    throw RecordDecodingError(table, field, "value is not text");
}

Bytes bytesColumn(const Row& row, int index, ColumnType type, std::string_view table, std::string_view field) {
    if (type == ColumnType::blob) {
        const auto bytes = row.blob(index);
        return Bytes(bytes.begin(), bytes.end());
    }
    if (type == ColumnType::text) {
        const std::string_view text = row.text(index);
        return Bytes(text.begin(), text.end());
    }
    throw RecordDecodingError(table, field, "value is not a byte string");
}

Timestamp dateColumn(const Row& row, int index, ColumnType type, std::string_view table, std::string_view field) {
    std::optional<Timestamp> date;
    switch (type) {
        case ColumnType::text:
            date = parseDateText(row.text(index));
            break;
        case ColumnType::integer:
            date = dateFromSecondsSince1970(static_cast<double>(row.int64(index)));
            break;
        case ColumnType::real:
            date = dateFromSecondsSince1970(row.real(index));
            break;
        default:
            break;
    }
    if (date) return *date;
    throw RecordDecodingError(table, field, "value is not a date");
}

void bindFieldValue(Statement& statement, int index, const FieldValue& value, const FieldDescriptor& field,
                    std::string_view table) {
    if (std::holds_alternative<std::monostate>(value)) {
        statement.bindNull(index);
        return;
    }
    switch (field.type) {
        case FieldType::integer:
        case FieldType::enumeration:
            if (const auto* integer = std::get_if<std::int64_t>(&value)) {
                statement.bind(index, *integer);
                return;
            }
            break;
        case FieldType::boolean:
            if (const auto* boolean = std::get_if<bool>(&value)) {
                statement.bind(index, std::int64_t{*boolean ? 1 : 0});
                return;
            }
            break;
        case FieldType::text:
            if (const auto* text = std::get_if<std::string>(&value)) {
                statement.bind(index, std::string_view(*text));
                return;
            }
            break;
        case FieldType::bytes:
            if (const auto* bytes = std::get_if<Bytes>(&value)) {
                statement.bind(index, std::span<const std::uint8_t>(*bytes));
                return;
            }
            break;
        case FieldType::date:
            if (const auto* date = std::get_if<Timestamp>(&value)) {
                auto text = formatDateText(*date);
                if (!text) throw RecordDecodingError(table, field.name, "date is outside years 0000 to 9999");
                statement.bind(index, std::string_view(*text));
                return;
            }
            break;
    }
    throw RecordDecodingError(table, field.name, "value does not match the field's type");
}

std::string makeInsertSQL(std::string_view table, std::span<const FieldDescriptor> fields) {
    std::string sql = "INSERT INTO ";
    appendQuoted(sql, table);
    sql += " (";
    for (std::size_t i = 0; i < fields.size(); ++i) {
        if (i > 0) sql += ", ";
        appendQuoted(sql, fields[i].name);
    }
    sql += ") VALUES (";
    for (std::size_t i = 0; i < fields.size(); ++i) sql += i > 0 ? ", ?" : "?";
    sql += ')';
    return sql;
}

std::string makeUpdateSQL(std::string_view table, std::span<const FieldDescriptor> fields) {
    std::string sql = "UPDATE ";
    appendQuoted(sql, table);
    sql += " SET ";
    for (std::size_t i = 1; i < fields.size(); ++i) {
        if (i > 1) sql += ", ";
        appendQuoted(sql, fields[i].name);
        sql += " = ?";
    }
    sql += " WHERE ";
    appendQuoted(sql, fields[0].name);
    sql += " = ?";
    return sql;
}

}  // namespace notificationdb::detail
