#pragma once

#include <NotificationDatabase/Export.hpp>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace notificationdb {

// Severity of a log message; every failure message of the library uses `error`.
enum class LogLevel : int { verbose = 0, debug = 1, info = 2, warning = 3, error = 4 };

// Text form of a level ("verbose" ... "error").
NOTIFICATIONDB_API std::string_view logLevelName(LogLevel level) noexcept;

// Where log messages end up. Implementations must be safe to call from any thread.
class NOTIFICATIONDB_API LogDestination {
public:
    virtual ~LogDestination() = default;
    // `loggerPath` is the dotted name of the logger that logged, e.g.
    // "root.notifications-database".
    virtual void write(std::string_view loggerPath, LogLevel level, std::string_view message) = 0;
};

// Writes one line per message to standard error: "[level] path: message".
class NOTIFICATIONDB_API StderrLogDestination final : public LogDestination {
public:
    // Messages below `minimumLevel` are dropped.
    explicit StderrLogDestination(LogLevel minimumLevel = LogLevel::verbose) noexcept;
    void write(std::string_view loggerPath, LogLevel level, std::string_view message) override;

private:
    LogLevel minimumLevel_;
    std::mutex mutex_;
};

// Keeps every message in memory; meant for tests and for hosts that forward logs elsewhere.
class NOTIFICATIONDB_API CapturingLogDestination final : public LogDestination {
public:
    // One message as it arrived.
    struct Entry {
        std::string loggerPath;  // the dotted path of the logger that logged it
        LogLevel level;          // its level
        std::string message;     // its text
    };

    void write(std::string_view loggerPath, LogLevel level, std::string_view message) override;
    // A copy of the messages received so far, in arrival order.
    std::vector<Entry> entries() const;
    // Only the message texts, in arrival order.
    std::vector<std::string> messages() const;
    void clear();  // forgets the messages received so far

private:
    mutable std::mutex mutex_;
    std::vector<Entry> entries_;
};

// A named logger in a tree rooted at `Logger::module()`. A message goes to the logger's own
// destinations and, when it inherits, to everything its parent would deliver to.
class NOTIFICATIONDB_API Logger : public std::enable_shared_from_this<Logger> {
public:
    using Destinations = std::vector<std::shared_ptr<LogDestination>>;  // where messages are written

    // The process's root logger, created on first use; writes to standard error by default.
    static std::shared_ptr<Logger> module();

    // A child logger. It keeps its parent alive.
    std::shared_ptr<Logger> subLogger(std::string name, Destinations destinations, bool inheritDestinations) const;

    // Delivers `message` at `level` to the destinations described above. Never throws.
    void log(LogLevel level, std::string_view message) const noexcept;

    const std::string& name() const noexcept { return name_; }  // its own name, e.g. "notifications-database"
    // The dotted path from the root, e.g. "root.notifications-database".
    const std::string& path() const noexcept { return path_; }

    // Replaces this logger's own destinations; lets a host or a test redirect output.
    void setDestinations(Destinations destinations);
    Destinations destinations() const;  // this logger's own destinations, not its parent's

    // Use `module()` and `subLogger()`; public only for `std::make_shared`.
    Logger(std::string name, std::shared_ptr<const Logger> parent, Destinations destinations, bool inheritDestinations);

private:
    void deliver(std::string_view path, LogLevel level, std::string_view message) const;

    std::string name_;
    std::string path_;
    std::shared_ptr<const Logger> parent_;
    bool inheritDestinations_;
    mutable std::mutex mutex_;
    Destinations destinations_;
};

}  // namespace notificationdb
