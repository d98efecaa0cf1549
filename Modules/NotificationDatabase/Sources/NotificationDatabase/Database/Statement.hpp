#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <sqlite3.h>

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
    // Whether every column of this view is NULL. When the view's columns come from one table
    // that declares one of them never NULL (NOT NULL, or a row id with AUTOINCREMENT), that
    // column alone decides: a LEFT JOIN that matched no row gives NULL there, a stored row never
    // does. (SQLite does not tell two joins of the same table apart: a scope is taken to hold
    // one of them.)
    bool allNull() const noexcept {
        if (key_ >= 0) return isNull(key_);
        for (int i = begin_; i < end_; ++i) {
            if (!isNull(i)) return false;
        }
        return true;
    }

    // Column accessors take statement column indexes (as returned by `index`).
    ColumnType type(int index) const noexcept { return static_cast<ColumnType>(sqlite3_column_type(handle_, index)); }
    bool isNull(int index) const noexcept { return type(index) == ColumnType::null; }
    std::int64_t int64(int index) const noexcept { return sqlite3_column_int64(handle_, index); }
    double real(int index) const noexcept { return sqlite3_column_double(handle_, index); }
    std::string_view text(int index) const noexcept {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(handle_, index));
        const int size = sqlite3_column_bytes(handle_, index);
        return text != nullptr ? std::string_view(text, static_cast<std::size_t>(size)) : std::string_view();
    }
    std::span<const std::uint8_t> blob(int index) const noexcept {
        const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(handle_, index));
        const int size = sqlite3_column_bytes(handle_, index);
        return bytes != nullptr ? std::span<const std::uint8_t>(bytes, static_cast<std::size_t>(size))
                                : std::span<const std::uint8_t>();
    }

    // Statement column indexes of `names` in this view (-1 for a missing one), computed once
    // per statement and view and then reused for every row; `key` identifies the name list.
    // Valid until the statement is prepared again (other lookups do not move it).
    std::span<const int> resolve(const void* key, std::span<const std::string_view> names) const;

private:
    friend class Statement;
    struct Layout;
    Row(const Statement* statement, sqlite3_stmt* handle, Layout* layout, int begin, int end, int key) noexcept
        : statement_(statement), handle_(handle), layout_(layout), begin_(begin), end_(end), key_(key) {}

    const Statement* statement_;
    sqlite3_stmt* handle_;
    Layout* layout_;
    int begin_;
    int end_;
    int key_;  // the column that alone tells whether the view is all NULL, or -1
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
    // Text and bytes bound without a copy: they must stay alive and unchanged until the
    // statement is reset (a cached statement is reset when its user lets it go). Temporaries
    // are refused.
    void bindNoCopy(int index, const std::string& text);
    void bindNoCopy(int index, const std::vector<std::uint8_t>& bytes);
    void bindNoCopy(int index, std::string&& text) = delete;
    void bindNoCopy(int index, std::vector<std::uint8_t>&& bytes) = delete;
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
    // Makes the statement ready to run again with its bindings kept. Never throws.
    void rewind() noexcept;

    // The current row (valid after `step()` returned true). The first call of a run checks that
    // the column layout still belongs to the statement's preparation (SQLite prepares again
    // only as a run starts); throws `std::bad_alloc` when a new layout cannot be made.
    Row row() {
        if (!layoutChecked_) checkLayout();
        return {this, statement_, layout_.get(), 0, baseEnd_, -1};
    }
    int columnCount() const noexcept;
    std::string_view columnName(int index) const noexcept;
    // Rows that the last run returned before it was done (0 before the first finished run): a
    // reader's guess at the size of the next one.
    std::size_t previousRowCount() const noexcept { return previousRowCount_; }

private:
    friend class Row;
    void checkLayout();
    [[noreturn]] void fail(int resultCode) const;

    sqlite3* connection_;
    ChangeJournal* journal_;
    sqlite3_stmt* statement_ = nullptr;
    std::string sql_;
    std::unique_ptr<Row::Layout> layout_;
    int baseEnd_ = 0;
    bool layoutChecked_ = false;
    std::size_t rowsThisRun_ = 0;
    std::size_t previousRowCount_ = 0;
};

}  // namespace notificationdb
