#include "NotificationDatabase/Database/DatabasePool.hpp"

#include "NotificationDatabase/Database/DatabaseError.hpp"
#include "NotificationDatabase/Database/Names.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

namespace notificationdb {

namespace {

// The writes running on this thread, innermost first: a write that finds its own pool here
// was started from inside a write of it.
struct WriteFrame {
    const void* pool;
    const WriteFrame* outer;
};
thread_local const WriteFrame* innermostWrite = nullptr;

class RunningWrite {
public:
    explicit RunningWrite(const void* pool) : frame_{pool, innermostWrite} {
        for (const WriteFrame* frame = frame_.outer; frame != nullptr; frame = frame->outer) {
            if (frame->pool == pool) {
                throw std::logic_error(
                    "a write of the database was started from inside another write of it on the same thread");
            }
        }
        innermostWrite = &frame_;
    }
    ~RunningWrite() { innermostWrite = frame_.outer; }
    RunningWrite(const RunningWrite&) = delete;
    RunningWrite& operator=(const RunningWrite&) = delete;

private:
    WriteFrame frame_;
};

constexpr std::size_t maximumTrackedTables = 64;

constexpr std::string_view beginDeferred = "BEGIN DEFERRED TRANSACTION";
constexpr std::string_view beginImmediate = "BEGIN IMMEDIATE TRANSACTION";
constexpr std::string_view commit = "COMMIT TRANSACTION";
constexpr std::string_view rollback = "ROLLBACK TRANSACTION";

// Switching a new file to WAL needs a lock that SQLite does not wait for (it answers BUSY at
// once rather than risk a deadlock), so two processes creating the same file can collide here.
// Retry within the configured busy time-out.
void enableWAL(Connection& writer, const BusyMode& busyMode) {
    const auto deadline =
        std::chrono::steady_clock::now() +
        std::chrono::duration<double>(busyMode.kind() == BusyMode::Kind::timeout ? busyMode.seconds() : 0);
    for (;;) {
        try {
            writer.execute("PRAGMA journal_mode = WAL");
            return;
        } catch (const DatabaseError& error) {
            if (error.resultCode() != SQLITE_BUSY || std::chrono::steady_clock::now() >= deadline) throw;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

// Large (and empty) sets of ids travel as JSON arrays read with json_each. SQLite builds the
// JSON functions in by default only since 3.38, and a build may leave them out: say so when the
// pool opens rather than fail every query later. Every connection of the process uses the same
// SQLite, so once they have been found the later pools need not look again.
void requireJSONFunctions(Connection& connection) {
    static std::atomic<bool> found{false};
    if (found.load(std::memory_order_relaxed)) return;
    constexpr std::string_view probe = "SELECT json_valid('[]')";
    try {
        connection.execute(probe);
        found.store(true, std::memory_order_relaxed);
    } catch (const DatabaseError& error) {
        if (error.message().find("no such function") == std::string::npos) throw;
        throw DatabaseError(
            error.resultCode(), error.extendedResultCode(),
            "SQLite is built without the JSON functions, which the notification store needs (" + error.message() + ")",
            std::string(probe));
    }
}

}  // namespace

struct DatabasePool::Shared {
    struct Observer {
        std::uint64_t mask = 0;
        ChangeHandler onChange;
        ErrorHandler onError;
    };

    std::filesystem::path path;
    Configuration configuration;

    // The writer. `writerMutex` serialises writes and every use of the writer connection.
    std::mutex writerMutex;
    std::unique_ptr<Connection> writer;

    // Observation. `trackedTables` only grows (a table's bit never changes meaning); it is
    // read by the writer's hooks, which run under `writerMutex`, and changed under both locks.
    mutable std::mutex observersMutex;
    std::vector<std::string> trackedTables;
    std::vector<std::pair<std::uint64_t, std::shared_ptr<Observer>>> observers;
    std::uint64_t nextObserverID = 1;

    // Readers.
    mutable std::mutex readersMutex;
    std::condition_variable readerReturned;
    std::vector<std::unique_ptr<Connection>> idleReaders;
    int openReaders = 0;

    // Called for every changed row: the exact spelling of a tracked name is tried first.
    static void updateHook(void* context, int /*operation*/, const char* database, const char* table,
                           sqlite3_int64 /*rowID*/) {
        auto* shared = static_cast<Shared*>(context);
        if (database == nullptr || table == nullptr || std::strcmp(database, "main") != 0) return;
        const std::string_view name(table);
        for (std::size_t bit = 0; bit < shared->trackedTables.size(); ++bit) {
            const std::string& tracked = shared->trackedTables[bit];
            if (tracked.size() == name.size() &&
                (std::memcmp(tracked.data(), name.data(), name.size()) == 0 || equalsIgnoringCase(tracked, name))) {
                shared->writer->changeJournal().pending |= std::uint64_t{1} << bit;
                return;
            }
        }
    }

    // SQLite empties a table with an unconditional DELETE without visiting its rows, and then
    // calls no update hook. Answering IGNORE to the delete of a tracked table keeps the delete
    // but turns that shortcut off, so every deleted row is reported.
    static int authorizer(void* context, int action, const char* table, const char* /*unused*/, const char* database,
                          const char* /*trigger*/) {
        auto* shared = static_cast<Shared*>(context);
        if (action != SQLITE_DELETE || table == nullptr) return SQLITE_OK;
        if (database != nullptr && std::string_view(database) != "main") return SQLITE_OK;
        for (const auto& tracked : shared->trackedTables) {
            if (equalsIgnoringCase(tracked, table)) return SQLITE_IGNORE;
        }
        return SQLITE_OK;
    }

    std::uint64_t maskFor(const std::vector<std::string>& tables) {
        std::uint64_t mask = 0;
        for (const auto& table : tables) {
            auto found = std::find_if(trackedTables.begin(), trackedTables.end(),
                                      [&](const std::string& tracked) { return equalsIgnoringCase(tracked, table); });
            if (found == trackedTables.end()) {
                if (trackedTables.size() == maximumTrackedTables) {
                    throw std::length_error("too many observed tables");
                }
                trackedTables.push_back(table);
                found = trackedTables.end() - 1;
            }
            mask |= std::uint64_t{1} << static_cast<std::size_t>(found - trackedTables.begin());
        }
        return mask;
    }

    void notifyObservers(std::uint64_t changed) {
        std::vector<std::shared_ptr<Observer>> targets;
        {
            std::lock_guard lock(observersMutex);
            for (const auto& [id, observer] : observers) {
                if ((observer->mask & changed) != 0) targets.push_back(observer);
            }
        }
        for (const auto& observer : targets) {
            try {
                if (observer->onChange) observer->onChange();
                continue;
            } catch (const std::exception& error) {
                endObservation(observer);
                if (observer->onError) observer->onError(error);
            } catch (...) {
                endObservation(observer);
                if (observer->onError) observer->onError(std::runtime_error("unknown error in change handler"));
            }
        }
    }

    // A failed observation is over: it reports its error once and is not restarted.
    void endObservation(const std::shared_ptr<Observer>& observer) {
        std::lock_guard lock(observersMutex);
        std::erase_if(observers, [&](const auto& entry) { return entry.second == observer; });
    }

    std::unique_ptr<Connection> acquireReader() {
        std::unique_lock lock(readersMutex);
        for (;;) {
            if (!idleReaders.empty()) {
                auto reader = std::move(idleReaders.back());
                idleReaders.pop_back();
                return reader;
            }
            if (openReaders < Configuration::maximumReaderCount) {
                ++openReaders;
                lock.unlock();
                try {
                    return std::make_unique<Connection>(path, Connection::Mode::readOnly, configuration.busyMode);
                } catch (...) {
                    lock.lock();
                    --openReaders;
                    readerReturned.notify_one();
                    throw;
                }
            }
            readerReturned.wait(lock);
        }
    }

    void returnReader(std::unique_ptr<Connection> reader) {
        {
            std::lock_guard lock(readersMutex);
            idleReaders.push_back(std::move(reader));
        }
        readerReturned.notify_one();
    }
};

DatabasePool::DatabasePool(const std::filesystem::path& path, Configuration configuration)
    : shared_(std::make_shared<Shared>()) {
    shared_->path = path;
    shared_->configuration = std::move(configuration);
    const auto& config = shared_->configuration;
    shared_->writer = std::make_unique<Connection>(
        path, config.readOnly ? Connection::Mode::readOnly : Connection::Mode::readWriteCreate, config.busyMode);
    if (!config.readOnly) enableWAL(*shared_->writer, config.busyMode);
    requireJSONFunctions(*shared_->writer);
    sqlite3_update_hook(shared_->writer->handle(), &Shared::updateHook, shared_.get());
    sqlite3_set_authorizer(shared_->writer->handle(), &Shared::authorizer, shared_.get());
}

DatabasePool::~DatabasePool() = default;

const std::filesystem::path& DatabasePool::path() const noexcept {
    return shared_->path;
}

const Configuration& DatabasePool::configuration() const noexcept {
    return shared_->configuration;
}

void DatabasePool::writeImpl(const std::function<void(Connection&)>& body, Begin begin) {
    Shared& shared = *shared_;
    const RunningWrite running(&shared);
    std::lock_guard lock(shared.writerMutex);
    Connection& writer = *shared.writer;
    writer.changeJournal() = {};
    const bool deferred = begin == Begin::deferred || shared.configuration.readOnly;
    writer.cachedStatement(deferred ? beginDeferred : beginImmediate)->execute();
    try {
        body(writer);
        writer.cachedStatement(commit)->execute();
    } catch (...) {
        if (writer.isInsideTransaction()) {
            try {
                writer.cachedStatement(rollback)->execute();
            } catch (...) {
                // The transaction is gone either way; the original failure is what matters.
            }
        }
        writer.changeJournal() = {};
        throw;
    }
    const std::uint64_t changed = writer.changeJournal().settled;
    writer.changeJournal() = {};
    // Observers run before the next write can start, so that they see commits in order.
    if (changed != 0) shared.notifyObservers(changed);
}

void DatabasePool::readImpl(const std::function<void(Connection&)>& body) {
    Shared& shared = *shared_;
    std::unique_ptr<Connection> reader = shared.acquireReader();
    try {
        reader->cachedStatement(beginDeferred)->execute();
        try {
            body(*reader);
        } catch (...) {
            if (reader->isInsideTransaction()) {
                try {
                    reader->cachedStatement(rollback)->execute();
                } catch (...) {
                }
            }
            throw;
        }
        reader->cachedStatement(commit)->execute();
    } catch (...) {
        shared.returnReader(std::move(reader));
        throw;
    }
    shared.returnReader(std::move(reader));
}

std::unique_ptr<DatabaseObservation> DatabasePool::observe(std::vector<std::string> tables, ChangeHandler onChange,
                                                           ErrorHandler onError) {
    Shared& shared = *shared_;
    auto observer = std::make_shared<Shared::Observer>();
    observer->onChange = std::move(onChange);
    observer->onError = std::move(onError);
    std::uint64_t id = 0;
    {
        // The writer lock keeps the hooks from reading `trackedTables` while it grows.
        std::lock_guard writerLock(shared.writerMutex);
        std::lock_guard lock(shared.observersMutex);
        const std::size_t trackedBefore = shared.trackedTables.size();
        observer->mask = shared.maskFor(tables);
        id = shared.nextObserverID++;
        shared.observers.emplace_back(id, observer);
        if (shared.trackedTables.size() != trackedBefore) {
            // Setting the authorizer again expires the writer's prepared statements, so that
            // cached deletes are prepared again under the new rules.
            sqlite3_set_authorizer(shared.writer->handle(), &Shared::authorizer, shared_.get());
        }
    }
    std::weak_ptr<Shared> weak = shared_;
    class Handle final : public DatabaseObservation {
    public:
        Handle(std::weak_ptr<Shared> shared, std::uint64_t id) : shared_(std::move(shared)), id_(id) {}
        ~Handle() override {
            if (auto shared = shared_.lock()) {
                std::lock_guard lock(shared->observersMutex);
                std::erase_if(shared->observers, [this](const auto& entry) { return entry.first == id_; });
            }
        }

    private:
        std::weak_ptr<Shared> shared_;
        std::uint64_t id_;
    };
    return std::make_unique<Handle>(std::move(weak), id);
}

}  // namespace notificationdb
