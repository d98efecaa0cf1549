#pragma once

#include <NotificationDatabase/Export.hpp>

#include <stdexcept>
#include <string>

namespace notificationdb {

// A failure reported by SQLite. `what()` is safe to log: the result code, its name and SQLite's
// message, "SQLite error 19 (SQLITE_CONSTRAINT_FOREIGNKEY): FOREIGN KEY constraint failed";
// the SQL of the statement (with `?` placeholders, never bound values) is kept apart.
class NOTIFICATIONDB_API DatabaseError : public std::runtime_error {
public:
    // The failure of `sql` (empty when it was no statement's) with SQLite's codes and message.
    DatabaseError(int resultCode, int extendedResultCode, std::string message, std::string sql);

    int resultCode() const noexcept { return resultCode_; }                  // e.g. 19, SQLITE_CONSTRAINT
    int extendedResultCode() const noexcept { return extendedResultCode_; }  // e.g. 787, its FOREIGNKEY case
    // SQLite's description of the failure, without bound values.
    const std::string& message() const noexcept { return message_; }
    const std::string& sql() const noexcept { return sql_; }  // the statement, or empty

    // Symbolic name of an SQLite result code, primary or extended ("SQLITE_BUSY_SNAPSHOT").
    static std::string codeName(int code);

private:
    int resultCode_;
    int extendedResultCode_;
    std::string message_;
    std::string sql_;
};

}  // namespace notificationdb
