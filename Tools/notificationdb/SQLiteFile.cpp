#include "SQLiteFile.hpp"

#include <NotificationDatabase/Database/DatabaseError.hpp>
#include <NotificationDatabase/Database/Names.hpp>

#include <sqlite3.h>

#include <algorithm>
#include <memory>

namespace notificationdb::tool {

namespace {

DatabaseError failure(sqlite3* connection, int code, std::string_view sql) {
    const int extended = connection != nullptr ? sqlite3_extended_errcode(connection) : code;
    return DatabaseError(code & 0xff, (extended & 0xff) == (code & 0xff) ? extended : code,
                         connection != nullptr ? sqlite3_errmsg(connection) : sqlite3_errstr(code), std::string(sql));
}

}  // namespace

bool SQLiteFile::Row::isNull(int column) const {
    return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

std::int64_t SQLiteFile::Row::integer(int column) const {
    return sqlite3_column_int64(statement_, column);
}

std::optional<std::string> SQLiteFile::Row::text(int column) const {
    if (isNull(column)) return std::nullopt;
    const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    return std::string(bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)));
}

SQLiteFile::SQLiteFile(const std::filesystem::path& path) {
    const int code = sqlite3_open_v2(path.c_str(), &connection_, SQLITE_OPEN_READONLY, nullptr);
    if (code != SQLITE_OK) {
        const auto error = failure(connection_, code, "");
        sqlite3_close_v2(connection_);
        throw error;
    }
    sqlite3_extended_result_codes(connection_, 1);
    // A misspelt or missing column must fail, not compare as a text in double quotes.
    sqlite3_db_config(connection_, SQLITE_DBCONFIG_DQS_DML, 0, nullptr);
    sqlite3_db_config(connection_, SQLITE_DBCONFIG_DQS_DDL, 0, nullptr);
    sqlite3_busy_timeout(connection_, 2000);
}

SQLiteFile::~SQLiteFile() {
    sqlite3_close_v2(connection_);
}

void SQLiteFile::each(std::string_view sql, const std::vector<Parameter>& parameters,
                      const std::function<void(const Row&)>& onRow) {
    sqlite3_stmt* raw = nullptr;
    int code = sqlite3_prepare_v2(connection_, sql.data(), static_cast<int>(sql.size()), &raw, nullptr);
    // Finalised on every way out, so that no statement keeps a read transaction open.
    const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> statement(raw, sqlite3_finalize);
    if (code != SQLITE_OK) throw failure(connection_, code, sql);
    int index = 1;
    for (const auto& parameter : parameters) {
        if (const auto* number = std::get_if<std::int64_t>(&parameter)) {
            sqlite3_bind_int64(raw, index++, *number);
        } else {
            const auto& text = std::get<std::string>(parameter);
            sqlite3_bind_text(raw, index++, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
        }
    }
    const Row row(raw);
    while ((code = sqlite3_step(raw)) == SQLITE_ROW) onRow(row);
    if (code != SQLITE_DONE) throw failure(connection_, code, sql);
}

std::optional<std::int64_t> SQLiteFile::integer(std::string_view sql, const std::vector<Parameter>& parameters) {
    std::optional<std::int64_t> value;
    bool first = true;
    each(sql, parameters, [&](const Row& row) {
        if (first && !row.isNull(0)) value = row.integer(0);
        first = false;
    });
    return value;
}

std::vector<std::string> SQLiteFile::texts(std::string_view sql, const std::vector<Parameter>& parameters) {
    std::vector<std::string> values;
    each(sql, parameters, [&](const Row& row) { values.push_back(row.text(0).value_or("")); });
    return values;
}

std::vector<std::string> SQLiteFile::tableNames() {
    return texts("SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite\\_%' ESCAPE '\\'");
}

bool holdsName(const std::vector<std::string>& names, std::string_view name) {
    return std::any_of(names.begin(), names.end(),
                       [&](const std::string& candidate) { return equalsIgnoringCase(candidate, name); });
}

std::string jsonArray(const std::vector<std::int64_t>& ids) {
    std::string text = "[";
    for (const auto id : ids) {
        if (text.size() > 1) text += ',';
        text += std::to_string(id);
    }
    text += ']';
    return text;
}

}  // namespace notificationdb::tool
