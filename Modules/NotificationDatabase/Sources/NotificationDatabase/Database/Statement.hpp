#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

#include <sqlite3.h>

namespace notificationdb {

class DatabaseError;

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

// The columns [begin, end) of the current row of a stepped statement: the whole row, or the part
// of a joined row that holds one table's columns. Column accessors take statement column
// indexes. Valid until the statement steps again.
class Row {
public:
    Row(sqlite3_stmt* handle, int begin, int end) noexcept : handle_(handle), begin_(begin), end_(end) {}

    sqlite3_stmt* handle() const noexcept { return handle_; }
    int begin() const noexcept { return begin_; }
    int end() const noexcept { return end_; }
    // The columns [begin, end) of the same row.
    Row part(int begin, int end) const noexcept { return {handle_, begin, end}; }
    // Index of the column named `name` in this part (names compare as SQLite compares them), or
    // -1. The column at `likely` is tried first.
    int index(std::string_view name, int likely) const noexcept;
    std::string_view name(int index) const noexcept;
    bool allNull() const noexcept;

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

private:
    sqlite3_stmt* handle_;
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

    // Binding; each throws `DatabaseError` when SQLite refuses the value (e.g. a bad index).
    void bindNull(int index);
    void bind(int index, std::int64_t value);
    void bind(int index, double value);
    // Text and bytes are copied at bind time, so the caller's buffer may go at once.
    void bind(int index, std::string_view text);
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

    // The current row (valid after `step()` returned true).
    Row row() const noexcept { return {statement_, 0, sqlite3_column_count(statement_)}; }
    // Rows that the last run returned before it was done (0 before the first finished run): a
    // reader's guess at the size of the next one.
    std::size_t previousRowCount() const noexcept { return previousRowCount_; }

    // What a reader works out about the columns of this statement's rows (where the fields of a
    // record stand, say), built by `make(row())` on the current row and kept until SQLite
    // prepares the statement again, after which `*` may stand for other columns. Looking names
    // up once per preparation instead of once per run saves a fetch of a few rows a tenth of its
    // cost.
    template <class Layout, class Make>
    const Layout& layout(Make make) {
        const int preparation = sqlite3_stmt_status(statement_, SQLITE_STMTSTATUS_REPREPARE, 0);
        if (!layout_ || layoutType_ != &typeid(Layout) || layoutPreparation_ != preparation) {
            layout_ = std::make_shared<const Layout>(make(row()));
            layoutType_ = &typeid(Layout);
            layoutPreparation_ = preparation;
        }
        return *static_cast<const Layout*>(layout_.get());
    }

private:
    [[noreturn]] void fail(int resultCode) const;

    sqlite3* connection_;
    ChangeJournal* journal_;
    sqlite3_stmt* statement_ = nullptr;
    std::string sql_;
    std::size_t rowsThisRun_ = 0;
    std::size_t previousRowCount_ = 0;
    std::shared_ptr<const void> layout_;
    const std::type_info* layoutType_ = nullptr;
    int layoutPreparation_ = -1;
};

}  // namespace notificationdb
