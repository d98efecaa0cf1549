#pragma once

#include <NotificationDatabase/Database/Configuration.hpp>
#include <NotificationDatabase/Database/Connection.hpp>

#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace notificationdb {

// Stops the observation it stands for when destroyed. Safe to destroy after its pool.
class DatabaseObservation {
public:
    virtual ~DatabaseObservation() = default;
};

// The connections of one database file: one writer connection that serialises the pool's
// writes, and up to `Configuration::maximumReaderCount` read-only connections, opened lazily,
// that read alongside each other and alongside the writer (WAL journal mode).
//
// Thread-safe: any thread may call `write` and `read`. A write started from inside a write of
// the same pool on the same thread would wait for itself: it throws `std::logic_error` instead.
class DatabasePool {
public:
    using ChangeHandler = std::function<void()>;
    using ErrorHandler = std::function<void(const std::exception& error)>;

    // How a write transaction begins. `immediate` takes the write lock at once, so the busy
    // mode applies to waiting for it; `deferred` takes it only when the work first writes (and
    // then fails at once with SQLITE_BUSY when another connection holds it). A read-only pool
    // always begins deferred.
    enum class Begin { immediate, deferred };

    // Opens the writer connection on `path` (creating the file unless read-only), enables
    // foreign keys and, for a read-write pool, WAL mode. Throws `DatabaseError`.
    DatabasePool(const std::filesystem::path& path, Configuration configuration);
    ~DatabasePool();
    DatabasePool(const DatabasePool&) = delete;
    DatabasePool& operator=(const DatabasePool&) = delete;

    const std::filesystem::path& path() const noexcept;
    const Configuration& configuration() const noexcept;

    // Runs `work` on the writer connection inside one transaction begun as `begin` says and
    // commits when it returns. When `work` or the commit throws, the transaction is rolled back
    // and the exception propagates. One write at a time per pool.
    template <class Work>
    auto write(Work&& work, Begin begin = Begin::immediate) -> std::invoke_result_t<Work&, Connection&> {
        return runAndReturn(work,
                            [this, begin](const std::function<void(Connection&)>& body) { writeImpl(body, begin); });
    }

    // Runs `work` on a reader connection inside one read transaction that sees the last
    // committed state as of its start. Exceptions propagate; nothing is written.
    template <class Work>
    auto read(Work&& work) -> std::invoke_result_t<Work&, Connection&> {
        return runAndReturn(work, [this](const std::function<void(Connection&)>& body) { readImpl(body); });
    }

    // Calls `onChange` after every committed write transaction that inserted, updated or
    // deleted at least one row of one of `tables` (an unconditional DELETE included), on the
    // writing thread, right after the commit and before the next write starts. Rolled-back
    // transactions and changes to other tables call nothing. When `onChange` throws, the
    // observation ends and `onError` receives the exception. Handlers must not use the pool's
    // write access.
    std::unique_ptr<DatabaseObservation> observe(std::vector<std::string> tables, ChangeHandler onChange,
                                                 ErrorHandler onError);

private:
    template <class Work, class Run>
    static auto runAndReturn(Work& work, Run&& run) -> std::invoke_result_t<Work&, Connection&> {
        using Result = std::invoke_result_t<Work&, Connection&>;
        if constexpr (std::is_void_v<Result>) {
            run([&work](Connection& connection) { work(connection); });
        } else {
            std::optional<Result> result;
            run([&work, &result](Connection& connection) { result.emplace(work(connection)); });
            return std::move(*result);
        }
    }

    void writeImpl(const std::function<void(Connection&)>& body, Begin begin);
    void readImpl(const std::function<void(Connection&)>& body);

    struct Shared;
    std::shared_ptr<Shared> shared_;
};

}  // namespace notificationdb
