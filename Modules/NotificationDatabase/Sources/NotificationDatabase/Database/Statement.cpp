#include "NotificationDatabase/Database/Statement.hpp"

#include "NotificationDatabase/Database/DatabaseError.hpp"
#include "NotificationDatabase/Database/Names.hpp"

#include <climits>
#include <utility>

namespace notificationdb {

DatabaseError databaseError(sqlite3* connection, int resultCode, std::string_view sql) {
    int extended = resultCode;
    std::string message;
    if (connection != nullptr) {
        extended = sqlite3_extended_errcode(connection);
        // The connection's last error can belong to another call when the failing call did not
        // set it (for example a misuse); trust the code we were given then.
        if ((extended & 0xff) != (resultCode & 0xff)) extended = resultCode;
        message = sqlite3_errmsg(connection);
    } else {
        message = sqlite3_errstr(resultCode);
    }
    return {resultCode & 0xff, extended, std::move(message), std::string(sql)};
}

void ChangeJournal::statementEnded(sqlite3* connection, int resultCode) noexcept {
    // A statement that fails under FAIL semantics (a trigger's RAISE(FAIL), for one) keeps the
    // rows it changed before the failure, and SQLite then reports those changes; one that fails
    // under ABORT is undone and reports none.
    if (resultCode == SQLITE_DONE || (resultCode != SQLITE_ROW && sqlite3_changes(connection) > 0)) {
        settled |= pending;
    }
    pending = 0;
}

int Row::index(std::string_view name, int likely) const noexcept {
    // Names are nearly always spelled alike: an exact comparison settles most of them cheaply.
    const auto named = [&](int i) {
        const std::string_view candidate = this->name(i);
        return candidate == name || equalsIgnoringCase(candidate, name);
    };
    if (likely >= begin_ && likely < end_ && named(likely)) return likely;
    for (int i = begin_; i < end_; ++i) {
        if (named(i)) return i;
    }
    return -1;
}

std::string_view Row::name(int index) const noexcept {
    const char* name = sqlite3_column_name(handle_, index);
    return name != nullptr ? std::string_view(name) : std::string_view();
}

bool Row::allNull() const noexcept {
    for (int i = begin_; i < end_; ++i) {
        if (!isNull(i)) return false;
    }
    return true;
}

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

namespace {

// A zero-length blob is still a blob, not NULL: SQLite needs a non-null pointer for that.
const void* blobData(std::span<const std::uint8_t> bytes) noexcept {
    static const std::uint8_t empty = 0;
    return bytes.empty() ? &empty : bytes.data();
}

}  // namespace

void Statement::bind(int index, std::string_view text) {
    if (text.size() > static_cast<std::size_t>(INT_MAX)) fail(SQLITE_TOOBIG);
    int rc = sqlite3_bind_text64(statement_, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    if (rc != SQLITE_OK) fail(rc);
}

void Statement::bind(int index, std::span<const std::uint8_t> bytes) {
    int rc = sqlite3_bind_blob64(statement_, index, blobData(bytes), bytes.size(), SQLITE_TRANSIENT);
    if (rc != SQLITE_OK) fail(rc);
}

void Statement::bindNoCopy(int index, const std::string& text) {
    if (text.size() > static_cast<std::size_t>(INT_MAX)) fail(SQLITE_TOOBIG);
    int rc = sqlite3_bind_text64(statement_, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
    if (rc != SQLITE_OK) fail(rc);
}

void Statement::bindNoCopy(int index, const std::vector<std::uint8_t>& bytes) {
    int rc = sqlite3_bind_blob64(statement_, index, blobData(bytes), bytes.size(), SQLITE_STATIC);
    if (rc != SQLITE_OK) fail(rc);
}

bool Statement::step() {
    int rc = sqlite3_step(statement_);
    if (rc == SQLITE_ROW) {
        ++rowsThisRun_;
        return true;
    }
    if (rc == SQLITE_DONE) previousRowCount_ = rowsThisRun_;
    rowsThisRun_ = 0;
    if (journal_ != nullptr) journal_->statementEnded(connection_, rc);
    if (rc == SQLITE_DONE) return false;
    // The error is taken first; the rewind then leaves the statement ready to be bound and run
    // again, as after any run.
    auto error = databaseError(connection_, rc, sql_);
    rewind();
    throw error;
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
    rowsThisRun_ = 0;
}

}  // namespace notificationdb
