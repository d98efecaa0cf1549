#include "StoreLog.hpp"

#include <iostream>
#include <utility>

namespace notificationdb::tool {

void StoreLog::write(std::string_view loggerPath, LogLevel level, std::string_view message) {
    // Every store logs through its own sub-logger of this name.
    const bool fromStore = loggerPath.ends_with(".notifications-database");
    std::string line = "notificationdb: ";
    {
        std::lock_guard lock(mutex_);
        if (fromStore && level == LogLevel::error) {
            failures_.emplace_back(message);
            if (quiet_) return;
        }
        if (fromStore && !database_.empty()) line += database_ + ": ";
    }
    if (level != LogLevel::error) line += std::string(logLevelName(level)) + ": ";
    std::cerr << line + std::string(message) + "\n" << std::flush;
}

void StoreLog::setDatabase(std::string path) {
    std::lock_guard lock(mutex_);
    database_ = std::move(path);
}

void StoreLog::setQuiet(bool quiet) {
    std::lock_guard lock(mutex_);
    quiet_ = quiet;
}

std::size_t StoreLog::failureCount() const {
    std::lock_guard lock(mutex_);
    return failures_.size();
}

std::string StoreLog::lastFailure() const {
    std::lock_guard lock(mutex_);
    return failures_.empty() ? std::string() : failures_.back();
}

}  // namespace notificationdb::tool
