#include "NotificationDatabase/Platform/LogSanitizer.hpp"

#include "NotificationDatabase/Platform/EngineError.hpp"

#include <string>

namespace notificationdb {

std::string LogSanitizer::sanitizeError(const std::exception& error) {
    // An engine error's what() may quote the statement and its values; only the code, its name
    // and the engine's own description are safe to write down.
    if (const auto* engineError = dynamic_cast<const EngineError*>(&error)) {
        return "SQLite error " + std::to_string(engineError->resultCode()) + " (" + engineError->codeName() +
               "): " + engineError->engineMessage();
    }
    // Everything else, system and file-system errors included, describes itself without
    // database contents.
    return error.what();
}

}  // namespace notificationdb
