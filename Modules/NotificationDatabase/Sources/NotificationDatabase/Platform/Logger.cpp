#include "NotificationDatabase/Platform/Logger.hpp"

#include "NotificationDatabase/Platform/ProcessWide.hpp"

#include <cstdio>
#include <utility>

namespace notificationdb {

std::string_view logLevelName(LogLevel level) noexcept {
    switch (level) {
        case LogLevel::verbose:
            return "verbose";
        case LogLevel::debug:
            return "debug";
        case LogLevel::info:
            return "info";
        case LogLevel::warning:
            return "warning";
        case LogLevel::error:
            return "error";
    }
    return "unknown";
}

StderrLogDestination::StderrLogDestination(LogLevel minimumLevel) noexcept : minimumLevel_(minimumLevel) {}

void StderrLogDestination::write(std::string_view loggerPath, LogLevel level, std::string_view message) {
    if (level < minimumLevel_) return;
    std::string line;
    line.reserve(loggerPath.size() + message.size() + 16);
    line += '[';
    line += logLevelName(level);
    line += "] ";
    line += loggerPath;
    line += ": ";
    line += message;
    line += '\n';
    // One write per line, so that lines of concurrent loggers do not interleave.
    std::lock_guard lock(mutex_);
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

void CapturingLogDestination::write(std::string_view loggerPath, LogLevel level, std::string_view message) {
    std::lock_guard lock(mutex_);
    entries_.push_back(Entry{std::string(loggerPath), level, std::string(message)});
}

std::vector<CapturingLogDestination::Entry> CapturingLogDestination::entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
}

std::vector<std::string> CapturingLogDestination::messages() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> result;
    result.reserve(entries_.size());
    for (const auto& entry : entries_) result.push_back(entry.message);
    return result;
}

void CapturingLogDestination::clear() {
    std::lock_guard lock(mutex_);
    entries_.clear();
}

Logger::Logger(std::string name, std::shared_ptr<const Logger> parent, Destinations destinations,
               bool inheritDestinations)
    : name_(std::move(name)),
      path_(parent ? parent->path() + "." + name_ : name_),
      parent_(std::move(parent)),
      inheritDestinations_(inheritDestinations),
      destinations_(std::move(destinations)) {}

std::shared_ptr<Logger> Logger::module() {
    return detail::neverDestroyed([] {
        return std::make_shared<Logger>("root", nullptr, Destinations{std::make_shared<StderrLogDestination>()}, false);
    });
}

std::shared_ptr<Logger> Logger::subLogger(std::string name, Destinations destinations, bool inheritDestinations) const {
    return std::make_shared<Logger>(std::move(name), shared_from_this(), std::move(destinations), inheritDestinations);
}

void Logger::log(LogLevel level, std::string_view message) const noexcept {
    try {
        deliver(path_, level, message);
    } catch (...) {
        // Logging must never disturb the caller, whatever a destination does.
    }
}

void Logger::deliver(std::string_view path, LogLevel level, std::string_view message) const {
    Destinations own;
    {
        std::lock_guard lock(mutex_);
        own = destinations_;
    }
    // Destinations are called without the lock, so that one may log or reconfigure loggers.
    for (const auto& destination : own) {
        if (!destination) continue;
        try {
            destination->write(path, level, message);
        } catch (...) {
            // A failing destination must not keep the message from the others.
        }
    }
    if (inheritDestinations_ && parent_) parent_->deliver(path, level, message);
}

void Logger::setDestinations(Destinations destinations) {
    std::lock_guard lock(mutex_);
    destinations_.swap(destinations);
}

Logger::Destinations Logger::destinations() const {
    std::lock_guard lock(mutex_);
    return destinations_;
}

}  // namespace notificationdb
