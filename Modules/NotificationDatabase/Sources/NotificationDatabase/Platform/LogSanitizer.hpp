#pragma once

#include <NotificationDatabase/Export.hpp>

#include <exception>
#include <string>

namespace notificationdb {

// Turns errors into text that is safe to log: for an `EngineError` (every database error) the
// result code, its name and the engine's message, e.g.
// "SQLite error 19 (SQLITE_CONSTRAINT_FOREIGNKEY): FOREIGN KEY constraint failed";
// for any other exception its `what()`. Never includes bound values or row contents.
class NOTIFICATIONDB_API LogSanitizer {
public:
    // The safe text of `error`, as described above.
    static std::string sanitizeError(const std::exception& error);
};

}  // namespace notificationdb
