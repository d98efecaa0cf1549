#include "NotificationDatabase/Database/Connection.hpp"

#include "NotificationDatabase/Database/Configuration.hpp"
#include "NotificationDatabase/Database/DatabaseError.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <utility>

namespace notificationdb {

CachedStatement::CachedStatement(Statement* statement, std::unique_ptr<Statement> owned, bool* inUse) noexcept
    : statement_(statement), owned_(std::move(owned)), inUse_(inUse) {}

CachedStatement::CachedStatement(CachedStatement&& other) noexcept
    : statement_(std::exchange(other.statement_, nullptr)),
      owned_(std::move(other.owned_)),
      inUse_(std::exchange(other.inUse_, nullptr)) {}

CachedStatement::~CachedStatement() {
    if (statement_ != nullptr) statement_->reset();
    if (inUse_ != nullptr) *inUse_ = false;
}

namespace {

constexpr auto busyRetryInterval = std::chrono::milliseconds(5);

int busyHandlerTrampoline(void* context, int numberOfTries) {
    auto* callback = static_cast<std::function<bool(int)>*>(context);
    try {
        return (*callback)(numberOfTries) ? 1 : 0;
    } catch (...) {
        return 0;
    }
}

// Retries every 5 ms until `seconds` have passed since the lock was first met. SQLite's own
// time-out sleeps in growing steps of up to 100 ms, so among several busy writers a waiter keeps
// missing the short gaps between the others' transactions and runs out of time. Much shorter
// steps are worse again: a dozen processes polling every millisecond crowd the lock they wait for.
BusyMode::Callback retryUntil(double seconds) {
    const auto limit = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(std::max(seconds, 0.0)));
    return [limit, firstTry = std::chrono::steady_clock::time_point()](int numberOfTries) mutable {
        const auto now = std::chrono::steady_clock::now();
        if (numberOfTries == 0) firstTry = now;
        if (now - firstTry >= limit) return false;
        std::this_thread::sleep_for(
            std::min<std::chrono::steady_clock::duration>(busyRetryInterval, limit - (now - firstTry)));
        return true;
    };
}

}  // namespace

Connection::Connection(const std::filesystem::path& path, Mode mode, const BusyMode& busyMode) {
    const int flags = (mode == Mode::readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) |
                      SQLITE_OPEN_NOMUTEX;
    const int rc = sqlite3_open_v2(path.c_str(), &db_, flags, nullptr);
    if (rc != SQLITE_OK) {
        // SQLite's own message ("unable to open database file") does not say which file.
        const DatabaseError failure = databaseError(db_, rc, "");
        sqlite3_close_v2(db_);
        db_ = nullptr;
        throw DatabaseError(failure.resultCode(), failure.extendedResultCode(),
                            failure.message() + ": " + path.string(), "");
    }
    sqlite3_extended_result_codes(db_, 1);
    // A double-quoted name that matches no column would otherwise be taken as a string literal:
    // a query on a column that another program dropped would silently compare a constant
    // instead of failing.
    sqlite3_db_config(db_, SQLITE_DBCONFIG_DQS_DML, 0, nullptr);
    sqlite3_db_config(db_, SQLITE_DBCONFIG_DQS_DDL, 0, nullptr);
    try {
        switch (busyMode.kind()) {
            case BusyMode::Kind::immediateError:
                break;
            case BusyMode::Kind::timeout:
                busyCallback_ = retryUntil(busyMode.seconds());
                break;
            case BusyMode::Kind::callback:
                busyCallback_ = busyMode.handler();
                break;
        }
        if (busyCallback_) sqlite3_busy_handler(db_, busyHandlerTrampoline, &busyCallback_);
        execute("PRAGMA foreign_keys = ON");
        // Reading the schema makes SQLite look at the file now, so that a file that is no
        // database fails here rather than at the first query. A read-write connection is the
        // pool's writer, which sets the journal mode next and so reads the file anyway.
        if (mode == Mode::readOnly) execute("SELECT count(*) FROM sqlite_master");
    } catch (...) {
        sqlite3_close_v2(db_);
        db_ = nullptr;
        throw;
    }
}

Connection::~Connection() {
    cache_.clear();
    sqlite3_close_v2(db_);
}

void Connection::execute(std::string_view sql) {
    // One statement at a time, so that the change marks are settled per statement: when a
    // later statement fails, the earlier ones keep their changes and their marks.
    const char* next = sql.data();
    const char* const end = sql.data() + sql.size();
    while (next < end) {
        sqlite3_stmt* statement = nullptr;
        int rc = sqlite3_prepare_v2(db_, next, static_cast<int>(end - next), &statement, &next);
        if (rc != SQLITE_OK) {
            journal_.pending = 0;
            throw databaseError(db_, rc, sql);
        }
        if (statement == nullptr) continue;  // only whitespace or a comment was left
        while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
        }
        journal_.statementEnded(db_, rc);
        if (rc != SQLITE_DONE) {
            DatabaseError error = databaseError(db_, rc, sql);
            sqlite3_finalize(statement);
            throw error;
        }
        sqlite3_finalize(statement);
    }
}

CachedStatement Connection::cachedStatement(std::string_view sql) {
    auto found = cache_.find(sql);
    if (found == cache_.end()) found = cache_.emplace(std::string(sql), CacheEntry{}).first;
    CacheEntry& entry = found->second;
    if (!entry.statement) entry.statement = std::make_unique<Statement>(db_, sql, &journal_);
    if (entry.inUse) {
        // The same SQL is already running further up the stack: use a private copy.
        auto owned = std::make_unique<Statement>(db_, sql, &journal_);
        Statement* raw = owned.get();
        return {raw, std::move(owned), nullptr};
    }
    entry.inUse = true;
    return {entry.statement.get(), nullptr, &entry.inUse};
}

int Connection::columnCount(std::string_view sql) {
    return Statement(db_, sql).row().end();
}

std::int64_t Connection::lastInsertedRowID() const noexcept {
    return sqlite3_last_insert_rowid(db_);
}

int Connection::changedRowCount() const noexcept {
    return sqlite3_changes(db_);
}

bool Connection::isInsideTransaction() const noexcept {
    return sqlite3_get_autocommit(db_) == 0;
}

bool Connection::tableExists(std::string_view name) {
    auto statement = cachedStatement("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ? COLLATE NOCASE");
    statement->bind(1, name);
    return statement->step();
}

}  // namespace notificationdb
