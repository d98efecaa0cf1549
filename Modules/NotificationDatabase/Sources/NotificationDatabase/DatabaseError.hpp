#pragma once

#include <NotificationDatabase/Export.hpp>
#include <NotificationDatabase/Platform/EngineError.hpp>

#include <stdexcept>
#include <string>
#include <string_view>

namespace notificationdb {

// A failure reported by SQLite: its result code, extended result code, message and the SQL of
// the statement (with `?` placeholders; bound values never appear).
class NOTIFICATIONDB_API DatabaseError : public EngineError {
public:
    // The failure of `sql` (empty when it was no statement's) with SQLite's codes and message.
    DatabaseError(int resultCode, int extendedResultCode, std::string message, std::string sql);

    const std::string& message() const noexcept { return engineMessage(); }  // SQLite's message
    const std::string& sql() const noexcept { return sql_; }                 // the statement, or empty

    // Symbolic name of an SQLite result code, primary or extended ("SQLITE_BUSY_SNAPSHOT").
    static std::string codeName(int code);

private:
    std::string sql_;
};

// A row could not be read into a record: a required column is missing or NULL, or a value has
// a type or content that the field cannot take. The text names the column, never its value.
class NOTIFICATIONDB_API RecordDecodingError : public std::runtime_error {
public:
    // Says which column of which table could not be read, and why.
    RecordDecodingError(std::string_view table, std::string_view column, std::string_view reason);

    const std::string& column() const noexcept { return column_; }  // the column that could not be read

private:
    std::string column_;
};

}  // namespace notificationdb
