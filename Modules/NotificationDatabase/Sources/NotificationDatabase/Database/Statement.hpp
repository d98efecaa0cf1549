#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace notificationdb {

class DatabaseError;
class Statement;

// The error that `connection` reports for the failed call that returned `resultCode`, while
// running `sql` (empty when no statement was involved).
DatabaseError databaseError(sqlite3* connection, int resultCode, std::string_view sql);

// Changes of observed tables made by statements of one connection. The connection's update
// hook marks `pending` while a statement runs; the statement settles the marks when it ends:
// it keeps them when its changes stayed and drops them when SQLite undid them.
struct ChangeJournal {
    std::uint64_t pending = 0;
    std::uint64_t settled = 0;

    // Settles the marks of the statement that just ended on `connection` with `resultCode`.
    void statementEnded(sqlite3* connection, int resultCode) noexcept;
};

// Storage class of a column value, as SQLite reports it for the current row.
enum class ColumnType { integer = 1, real = 2, text = 3, blob = 4, null = 5 };

// A view of the current row of a stepped statement, or of a named part of it. In a joined
// row the columns of the first table form the base part and the columns of each further table
// form a scope named after that table (e.g. "notificationButton"). Valid until the statement
// steps again.
class Row {
public:
    // Statement column index of the first column named `name` in this view (names compare
    // without regard to ASCII case), or -1.
    int index(std::string_view name) const noexcept;
    // The scope of that name, when the row has one.
    std::optional<Row> scope(std::string_view name) const;
    // Whether every column of this view is NULL.
    bool allNull() const noexcept;

    // Column accessors take statement column indexes (as returned by `index`).
    ColumnType type(int index) const noexcept;
    bool isNull(int index) const noexcept { return type(index) == ColumnType::null; }
    std::int64_t int64(int index) const noexcept;
    double real(int index) const noexcept;
    std::string_view text(int index) const noexcept;
    std::span<const std::uint8_t> blob(int index) const noexcept;

    // Statement column indexes of `names` in this view (-1 for a missing one), computed once
    // per statement and view and then reused for every row; `key` identifies the name list.
    // Valid until the statement is prepared again (other lookups do not move it).
    std::span<const int> resolve(const void* key, std::span<const std::string_view> names) const;

private:
    friend class Statement;
    Row(Statement* statement, int begin, int end) noexcept : statement_(statement), begin_(begin), end_(end) {}

    Statement* statement_;
    int begin_;
    int end_;
};

// A prepared SQLite statement. Parameters are bound by 1-based index; values are never
// spliced into the SQL text. Not thread-safe: used by one thread at a time, like its
// connection.
class Statement {
public:
    // Prepares `sql` on `connection` (persistent preparation); throws `DatabaseError`. When
    // `journal` is given, the statement settles its marks as it ends.
    Statement(sqlite3* connection, std::string_view sql, ChangeJournal* journal = nullptr);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    const std::string& sql() const noexcept { return sql_; }
    sqlite3_stmt* handle() const noexcept { return statement_; }

    // Binding; each throws `DatabaseError` when SQLite refuses the value (e.g. a bad index).
    void bindNull(int index);
    void bind(int index, std::int64_t value);
    void bind(int index, int value) { bind(index, static_cast<std::int64_t>(value)); }
    void bind(int index, bool value) { bind(index, static_cast<std::int64_t>(value ? 1 : 0)); }
    void bind(int index, double value);
    // Text and bytes are copied at bind time, so the caller's buffer may go at once.
    void bind(int index, std::string_view text);
    void bind(int index, const char* text) { bind(index, std::string_view(text)); }
    void bind(int index, std::span<const std::uint8_t> bytes);
    template <class T>
    void bind(int index, const std::optional<T>& value) {
        if (value) {
            bind(index, *value);
        } else {
            bindNull(index);
        }
    }

    // Advances to the next row: true when a row is available, false when done. Throws
    // `DatabaseError` on failure.
    bool step();
    // Steps until done, ignoring rows.
    void execute();
    // Makes the statement ready to run again and clears its bindings. Never throws.
    void reset() noexcept;

    // The current row (valid after `step()` returned true).
    Row row() noexcept;
    int columnCount() const noexcept;
    std::string_view columnName(int index) const noexcept;

private:
    friend class Row;
    struct Layout;
    const Layout& layout();
    [[noreturn]] void fail(int resultCode) const;

    sqlite3* connection_;
    ChangeJournal* journal_;
    sqlite3_stmt* statement_ = nullptr;
    std::string sql_;
    std::unique_ptr<Layout> layout_;
};

}  // namespace notificationdb
