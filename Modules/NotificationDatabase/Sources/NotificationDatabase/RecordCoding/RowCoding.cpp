#include "NotificationDatabase/RecordCoding/RowCoding.hpp"

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

void throwMissing(std::string_view table, std::string_view field, bool columnMissing) {
    throw RecordDecodingError(table, field, columnMissing ? "column is missing" : "required value is NULL");
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

void bindValue(Statement& statement, int index, std::int64_t value, std::string_view /*table*/,
               std::string_view /*field*/) {
    statement.bind(index, value);
}

void bindValue(Statement& statement, int index, const std::string& value, std::string_view /*table*/,
               std::string_view /*field*/) {
    statement.bindNoCopy(index, value);
}

void bindValue(Statement& statement, int index, Timestamp value, std::string_view table, std::string_view field) {
    const auto text = formatDateText(value);
    if (!text) throw RecordEncodingError(table, field, "the date has no stored form outside years 0000 to 9999");
    statement.bind(index, std::string_view(*text));
}

void bindValue(Statement& statement, int index, bool value, std::string_view /*table*/, std::string_view /*field*/) {
    statement.bind(index, std::int64_t{value ? 1 : 0});
}

void bindValue(Statement& statement, int index, const Bytes& value, std::string_view /*table*/,
               std::string_view /*field*/) {
    statement.bindNoCopy(index, value);
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
