#pragma once

// The library's log as the tool hears it. The store turns every failure into a neutral answer
// (0, an empty list, nothing) and says so only in its log, so the tool keeps the store's failure
// messages: a command that sees one gives no answer.

#include <NotificationDatabase/Platform/Logger.hpp>

#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace notificationdb::tool {

class StoreLog final : public LogDestination {
public:
    // Prints "notificationdb: " and the message on stderr (with its level unless it is an
    // error); the store's lines also name the database file once `setDatabase` has named it.
    // The store's errors are kept, and while quiet they are kept without being printed.
    void write(std::string_view loggerPath, LogLevel level, std::string_view message) override;

    void setDatabase(std::string path);
    void setQuiet(bool quiet);

    // How many failures the store has logged so far, and the latest one ("" before the first).
    std::size_t failureCount() const;
    std::string lastFailure() const;

private:
    mutable std::mutex mutex_;
    std::string database_;
    bool quiet_ = false;
    std::vector<std::string> failures_;
};

}  // namespace notificationdb::tool
