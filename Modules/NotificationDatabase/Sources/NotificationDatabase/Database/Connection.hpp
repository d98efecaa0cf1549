#pragma once

#include <NotificationDatabase/Database/Statement.hpp>

#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

struct sqlite3;

namespace notificationdb {

class Connection;
class BusyMode;

// Borrowed use of a statement from a connection's cache: reset and unbound when it goes out of
// scope, so the next user finds it ready.
class CachedStatement {
public:
    CachedStatement(CachedStatement&& other) noexcept;
    CachedStatement& operator=(CachedStatement&&) = delete;
    CachedStatement(const CachedStatement&) = delete;
    ~CachedStatement();

    Statement& operator*() const noexcept { return *statement_; }
    Statement* operator->() const noexcept { return statement_; }

private:
    friend class Connection;
    CachedStatement(Statement* statement, std::unique_ptr<Statement> owned, bool* inUse) noexcept;

    Statement* statement_;
    std::unique_ptr<Statement> owned_;  // set when the cached copy was busy
    bool* inUse_;
};

// A statement that the library runs again and again, named once for the whole process: its SQL
// and a slot of its own in every connection's cache, so that finding it there costs an index
// rather than hashing and comparing its text. Keys are meant to live as long as the process
// (static objects); each one takes a new slot.
class StatementKey {
public:
    explicit StatementKey(std::string sql);
    StatementKey(const StatementKey&) = delete;
    StatementKey& operator=(const StatementKey&) = delete;

    const std::string& sql() const noexcept { return sql_; }
    std::size_t slot() const noexcept { return slot_; }

private:
    std::string sql_;
    std::size_t slot_;
};

// One SQLite connection (RAII). Prepared statements are cached per connection, by key or by SQL
// text.
// Not thread-safe: a connection is used by one thread at a time (the pool sees to that).
class Connection {
public:
    enum class Mode { readWriteCreate, readOnly };

    // Opens the file; throws `DatabaseError` when SQLite cannot open it or it is no database.
    Connection(const std::filesystem::path& path, Mode mode, const BusyMode& busyMode);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    sqlite3* handle() const noexcept { return db_; }

    // Runs SQL without parameters or results (one or more statements); throws `DatabaseError`.
    void execute(std::string_view sql);
    // A cached prepared statement for `sql`, prepared on first use.
    CachedStatement cachedStatement(std::string_view sql);
    // The same for a keyed statement.
    CachedStatement cachedStatement(const StatementKey& key);
    // A statement prepared for one use only.
    std::unique_ptr<Statement> makeStatement(std::string_view sql);

    std::int64_t lastInsertedRowID() const noexcept;
    // Rows changed by the last INSERT, UPDATE or DELETE.
    int changedRowCount() const noexcept;
    bool isInsideTransaction() const noexcept;
    // Marks of observed-table changes made on this connection (see `DatabasePool::observe`).
    ChangeJournal& changeJournal() noexcept { return journal_; }
    // Whether a table of that name exists (names compare without regard to case).
    bool tableExists(std::string_view name);

private:
    struct SQLHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view sql) const noexcept { return std::hash<std::string_view>{}(sql); }
    };
    struct CacheEntry {
        std::unique_ptr<Statement> statement;
        bool inUse = false;
    };
    CachedStatement use(CacheEntry& entry, std::string_view sql);

    sqlite3* db_ = nullptr;
    ChangeJournal journal_;
    std::function<bool(int)> busyCallback_;
    std::unordered_map<std::string, CacheEntry, SQLHash, std::equal_to<>> cache_;
    // By `StatementKey::slot()`; growing a deque at its end keeps the entries in place, which
    // the statements in use point to.
    std::deque<CacheEntry> keyed_;
};

}  // namespace notificationdb
