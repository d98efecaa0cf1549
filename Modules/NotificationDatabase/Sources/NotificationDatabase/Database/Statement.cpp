#include "NotificationDatabase/Database/Statement.hpp"

#include "NotificationDatabase/DatabaseError.hpp"
#include "NotificationDatabase/NotificationModel/EnumerationCases.hpp"

#include <sqlite3.h>

#include <climits>
#include <cstring>
#include <utility>

namespace notificationdb {

void ChangeJournal::statementEnded(sqlite3* connection, int resultCode) noexcept {
    // A statement that fails under FAIL semantics (a trigger's RAISE(FAIL), for one) keeps the
    // rows it changed before the failure, and SQLite then reports those changes; one that fails
    // under ABORT is undone and reports none.
    if (resultCode == SQLITE_DONE || (resultCode != SQLITE_ROW && sqlite3_changes(connection) > 0)) {
        settled |= pending;
    }
    pending = 0;
}

// How the columns of a statement's rows are grouped: the base part (the first table's
// columns, or every column when SQLite reports no origin table) and one scope per further
// table. Computed once per preparation; also caches name lookups done by record readers.
struct Row::Layout {
    struct Scope {
        std::string name;
        int begin;
        int end;
        int key;
    };
    struct Resolution {
        const void* key;
        int begin;
        std::vector<int> indexes;
    };

    // SQLite may prepare the statement again after a schema change, and `*` then expands to
    // other columns: the layout belongs to one preparation.
    int preparation = 0;
    std::vector<Scope> scopes;
    std::vector<Resolution> resolutions;
    // The last scope asked for by name (readers ask for the same one on every row) and its
    // index in `scopes` (-1: none of that name).
    std::string lastScopeName;
    int lastScope = -1;
};

namespace {

// A column of the scope's table that no stored row holds NULL in, when every column of the scope
// comes straight from that one table (of one database): then that column is NULL exactly when
// a LEFT JOIN found no row. -1 when there is none, or when SQLite cannot tell.
int neverNullColumn(sqlite3* connection, sqlite3_stmt* statement, int begin, int end) {
    const char* const firstDatabase = sqlite3_column_database_name(statement, begin);
    for (int i = begin; i < end; ++i) {
        const char* database = sqlite3_column_database_name(statement, i);
        if (database == nullptr || firstDatabase == nullptr || std::strcmp(database, firstDatabase) != 0 ||
            sqlite3_column_table_name(statement, i) == nullptr || sqlite3_column_origin_name(statement, i) == nullptr) {
            return -1;
        }
    }
    for (int i = begin; i < end; ++i) {
        int notNull = 0;
        int primaryKey = 0;
        int autoincrement = 0;
        // AUTOINCREMENT is allowed on an INTEGER PRIMARY KEY alone, the row id, which is never NULL.
        if (sqlite3_table_column_metadata(connection, sqlite3_column_database_name(statement, i),
                                          sqlite3_column_table_name(statement, i),
                                          sqlite3_column_origin_name(statement, i), nullptr, nullptr, &notNull,
                                          &primaryKey, &autoincrement) == SQLITE_OK &&
            (notNull != 0 || autoincrement != 0)) {
            return i;
        }
    }
    return -1;
}

}  // namespace

Statement::Statement(sqlite3* connection, std::string_view sql, ChangeJournal* journal)
    : connection_(connection), journal_(journal), sql_(sql) {
    const char* tail = nullptr;
    int rc = sqlite3_prepare_v3(connection_, sql_.data(), static_cast<int>(sql_.size()), SQLITE_PREPARE_PERSISTENT,
                                &statement_, &tail);
    if (rc != SQLITE_OK) {
        DatabaseError error = databaseError(connection_, rc, sql_);
        sqlite3_finalize(statement_);
        statement_ = nullptr;
        throw error;
    }
    if (statement_ == nullptr) {
        // Only whitespace or comments: nothing to run.
        throw DatabaseError(SQLITE_MISUSE, SQLITE_MISUSE, "empty statement", sql_);
    }
}

Statement::~Statement() {
    sqlite3_finalize(statement_);
}

void Statement::fail(int resultCode) const {
    throw databaseError(connection_, resultCode, sql_);
}

void Statement::bindNull(int index) {
    if (int rc = sqlite3_bind_null(statement_, index); rc != SQLITE_OK) fail(rc);
}

void Statement::bind(int index, std::int64_t value) {
    if (int rc = sqlite3_bind_int64(statement_, index, value); rc != SQLITE_OK) fail(rc);
}

void Statement::bind(int index, double value) {
    if (int rc = sqlite3_bind_double(statement_, index, value); rc != SQLITE_OK) fail(rc);
}

void Statement::bind(int index, std::string_view text) {
    if (text.size() > static_cast<std::size_t>(INT_MAX)) fail(SQLITE_TOOBIG);
    int rc = sqlite3_bind_text64(statement_, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    if (rc != SQLITE_OK) fail(rc);
}

void Statement::bind(int index, std::span<const std::uint8_t> bytes) {
    // A zero-length blob is still a blob, not NULL: SQLite needs a non-null pointer for that.
    static const std::uint8_t empty = 0;
    const void* data = bytes.empty() ? &empty : bytes.data();
    int rc = sqlite3_bind_blob64(statement_, index, data, bytes.size(), SQLITE_TRANSIENT);
    if (rc != SQLITE_OK) fail(rc);
}

void Statement::bindNoCopy(int index, const std::string& text) {
    if (text.size() > static_cast<std::size_t>(INT_MAX)) fail(SQLITE_TOOBIG);
    int rc = sqlite3_bind_text64(statement_, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
    if (rc != SQLITE_OK) fail(rc);
}

void Statement::bindNoCopy(int index, const std::vector<std::uint8_t>& bytes) {
    static const std::uint8_t empty = 0;
    const void* data = bytes.empty() ? &empty : bytes.data();
    int rc = sqlite3_bind_blob64(statement_, index, data, bytes.size(), SQLITE_STATIC);
    if (rc != SQLITE_OK) fail(rc);
}

bool Statement::step() {
    int rc = sqlite3_step(statement_);
    if (rc == SQLITE_ROW) {
        ++rowsThisRun_;
        return true;
    }
    layoutChecked_ = false;
    if (rc == SQLITE_DONE) previousRowCount_ = rowsThisRun_;
    rowsThisRun_ = 0;
    if (journal_ != nullptr) journal_->statementEnded(connection_, rc);
    if (rc == SQLITE_DONE) return false;
    // sqlite3_reset returns the same error and keeps the connection's message for it.
    fail(rc);
}

void Statement::execute() {
    while (step()) {
    }
}

void Statement::reset() noexcept {
    rewind();
    sqlite3_clear_bindings(statement_);
}

void Statement::rewind() noexcept {
    sqlite3_reset(statement_);
    layoutChecked_ = false;
    rowsThisRun_ = 0;
}

int Statement::columnCount() const noexcept {
    return sqlite3_column_count(statement_);
}

std::string_view Statement::columnName(int index) const noexcept {
    const char* name = sqlite3_column_name(statement_, index);
    return name != nullptr ? std::string_view(name) : std::string_view();
}

void Statement::checkLayout() {
    const int preparation = sqlite3_stmt_status(statement_, SQLITE_STMTSTATUS_REPREPARE, 0);
    if (!layout_ || layout_->preparation != preparation) {
        auto layout = std::make_unique<Row::Layout>();
        layout->preparation = preparation;
        const int count = columnCount();
        auto tableOf = [this](int index) {
            const char* table = sqlite3_column_table_name(statement_, index);
            return table != nullptr ? std::string(table) : std::string();
        };
        int index = 0;
        if (count > 0) {
            const std::string baseTable = tableOf(0);
            if (baseTable.empty()) {
                index = count;
            } else {
                while (index < count && tableOf(index) == baseTable) ++index;
            }
        }
        baseEnd_ = index;
        while (index < count) {
            std::string table = tableOf(index);
            const int begin = index;
            while (index < count && tableOf(index) == table) ++index;
            const int key = table.empty() ? -1 : neverNullColumn(connection_, statement_, begin, index);
            layout->scopes.push_back({std::move(table), begin, index, key});
        }
        layout_ = std::move(layout);
    }
    layoutChecked_ = true;
}

int Row::index(std::string_view name) const noexcept {
    for (int i = begin_; i < end_; ++i) {
        if (equalsIgnoringCase(statement_->columnName(i), name)) return i;
    }
    return -1;
}

std::optional<Row> Row::scope(std::string_view name) const {
    Layout& layout = *layout_;
    if (name != layout.lastScopeName) {
        layout.lastScope = -1;
        for (std::size_t i = 0; i < layout.scopes.size(); ++i) {
            if (equalsIgnoringCase(layout.scopes[i].name, name)) {
                layout.lastScope = static_cast<int>(i);
                break;
            }
        }
        layout.lastScopeName = name;
    }
    if (layout.lastScope < 0) return std::nullopt;
    const auto& scope = layout.scopes[static_cast<std::size_t>(layout.lastScope)];
    return Row(statement_, handle_, layout_, scope.begin, scope.end, scope.key);
}

std::span<const int> Row::resolve(const void* key, std::span<const std::string_view> names) const {
    Layout& layout = *layout_;
    for (const auto& resolution : layout.resolutions) {
        if (resolution.key == key && resolution.begin == begin_) return resolution.indexes;
    }
    std::vector<int> indexes;
    indexes.reserve(names.size());
    for (auto name : names) indexes.push_back(index(name));
    layout.resolutions.push_back({key, begin_, std::move(indexes)});
    return layout.resolutions.back().indexes;
}

}  // namespace notificationdb
