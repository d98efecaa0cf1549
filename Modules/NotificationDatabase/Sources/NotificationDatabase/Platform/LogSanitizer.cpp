#include "NotificationDatabase/Platform/LogSanitizer.hpp"

namespace notificationdb {

std::string LogSanitizer::sanitizeError(const std::exception& error) {
    return error.what();
}

}  // namespace notificationdb
