#pragma once

#include <NotificationDatabase/Export.hpp>

#include <functional>

namespace notificationdb {

// What a connection does when it meets a lock held by another connection or process.
class BusyMode {
public:
    // Which of the three ways below the mode is.
    enum class Kind { immediateError, timeout, callback };
    // Called with the number of earlier calls for the same lock; return true to retry.
    using Callback = std::function<bool(int numberOfTries)>;

    // Fail at once with SQLITE_BUSY (the default).
    static BusyMode immediateError() { return BusyMode(Kind::immediateError, 0.0, {}); }
    // Retry for up to `seconds` before failing with SQLITE_BUSY.
    static BusyMode timeout(double seconds) { return BusyMode(Kind::timeout, seconds, {}); }
    // Ask `callback` whether to retry.
    static BusyMode callback(Callback callback) { return BusyMode(Kind::callback, 0.0, std::move(callback)); }

    // Which way the mode is.
    Kind kind() const noexcept { return kind_; }
    // The time-out in seconds; 0 unless `kind()` is `timeout`.
    double seconds() const noexcept { return seconds_; }
    // The callback; empty unless `kind()` is `callback`.
    const Callback& handler() const noexcept { return callback_; }

private:
    BusyMode(Kind kind, double seconds, Callback callback)
        : kind_(kind), seconds_(seconds), callback_(std::move(callback)) {}

    Kind kind_;
    double seconds_;
    Callback callback_;
};

// How a `DatabasePool` opens and uses its connections. Every connection of a pool has foreign
// keys enforced; a read-write pool puts the database in WAL journal mode; a pool has one writer
// connection and up to `maximumReaderCount` reader connections.
struct Configuration {
    static constexpr int maximumReaderCount = 5;  // reader connections a pool opens at most

    // Off: the writer opens the file read-write and creates it when missing. On: the writer
    // opens it read-only too, and a missing file is an error. Readers always open read-only.
    bool readOnly = false;
    // Applied to the writer and the readers.
    BusyMode busyMode = BusyMode::immediateError();
    // On: the pool never closes its reader connections to give memory back. (This pool never
    // does: it keeps every reader it opened for as long as it lives.)
    bool persistentReadOnlyConnections = false;
};

}  // namespace notificationdb
