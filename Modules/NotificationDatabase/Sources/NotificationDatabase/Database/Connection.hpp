#pragma once

#include <NotificationDatabase/Database/Statement.hpp>

#include <cstdint>
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

// One SQLite connection (RAII). Prepared statements are cached per connection, by their SQL text.
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
    // The prepared statement for `sql`, prepared on first use and kept for the connection's
    // lifetime. While one user holds it, a second user of the same SQL gets a copy of its own.
    CachedStatement cachedStatement(std::string_view sql);

    // How many columns the rows of `sql` have as SQLite prepares it now (a `*` stands for the
    // columns its table has now). Throws `DatabaseError`.
    int columnCount(std::string_view sql);

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

    sqlite3* db_ = nullptr;
    ChangeJournal journal_;
    std::function<bool(int)> busyCallback_;
    // Entries stay in place as the map grows (its nodes do not move): statements in use point to
    // them.
    std::unordered_map<std::string, CacheEntry, SQLHash, std::equal_to<>> cache_;
};

}  // namespace notificationdb
