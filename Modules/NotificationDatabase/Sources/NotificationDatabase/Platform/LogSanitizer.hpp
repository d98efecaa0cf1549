#pragma once

#include <NotificationDatabase/Export.hpp>

#include <exception>
#include <string>

namespace notificationdb {

// Turns errors into text that is safe to log. The library's errors describe themselves that way:
// a database error as its result code, the code's name and SQLite's message, e.g.
// "SQLite error 19 (SQLITE_CONSTRAINT_FOREIGNKEY): FOREIGN KEY constraint failed"; a record that
// cannot be read or written by the column and the reason. Neither ever holds bound values or row
// contents. Any other exception is rendered as its `what()`.
class NOTIFICATIONDB_API LogSanitizer {
public:
    // The safe text of `error`, as described above.
    static std::string sanitizeError(const std::exception& error);
};

}  // namespace notificationdb
