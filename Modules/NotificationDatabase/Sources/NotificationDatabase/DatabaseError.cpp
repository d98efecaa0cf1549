#include "NotificationDatabase/DatabaseError.hpp"

#include "NotificationDatabase/Database/Statement.hpp"

#include <sqlite3.h>

#include <array>
#include <utility>

namespace notificationdb {

namespace {

struct CodeName {
    int code;
    const char* name;
};

// Names of SQLite's primary and extended result codes.
constexpr std::array<CodeName, 104> kCodeNames{{
    {SQLITE_OK, "SQLITE_OK"},
    {SQLITE_ERROR, "SQLITE_ERROR"},
    {SQLITE_INTERNAL, "SQLITE_INTERNAL"},
    {SQLITE_PERM, "SQLITE_PERM"},
    {SQLITE_ABORT, "SQLITE_ABORT"},
    {SQLITE_BUSY, "SQLITE_BUSY"},
    {SQLITE_LOCKED, "SQLITE_LOCKED"},
    {SQLITE_NOMEM, "SQLITE_NOMEM"},
    {SQLITE_READONLY, "SQLITE_READONLY"},
    {SQLITE_INTERRUPT, "SQLITE_INTERRUPT"},
    {SQLITE_IOERR, "SQLITE_IOERR"},
    {SQLITE_CORRUPT, "SQLITE_CORRUPT"},
    {SQLITE_NOTFOUND, "SQLITE_NOTFOUND"},
    {SQLITE_FULL, "SQLITE_FULL"},
    {SQLITE_CANTOPEN, "SQLITE_CANTOPEN"},
    {SQLITE_PROTOCOL, "SQLITE_PROTOCOL"},
    {SQLITE_EMPTY, "SQLITE_EMPTY"},
    {SQLITE_SCHEMA, "SQLITE_SCHEMA"},
    {SQLITE_TOOBIG, "SQLITE_TOOBIG"},
    {SQLITE_CONSTRAINT, "SQLITE_CONSTRAINT"},
    {SQLITE_MISMATCH, "SQLITE_MISMATCH"},
    {SQLITE_MISUSE, "SQLITE_MISUSE"},
    {SQLITE_NOLFS, "SQLITE_NOLFS"},
    {SQLITE_AUTH, "SQLITE_AUTH"},
    {SQLITE_FORMAT, "SQLITE_FORMAT"},
    {SQLITE_RANGE, "SQLITE_RANGE"},
    {SQLITE_NOTADB, "SQLITE_NOTADB"},
    {SQLITE_NOTICE, "SQLITE_NOTICE"},
    {SQLITE_WARNING, "SQLITE_WARNING"},
    {SQLITE_ROW, "SQLITE_ROW"},
    {SQLITE_DONE, "SQLITE_DONE"},
    {SQLITE_ERROR_MISSING_COLLSEQ, "SQLITE_ERROR_MISSING_COLLSEQ"},
    {SQLITE_ERROR_RETRY, "SQLITE_ERROR_RETRY"},
    {SQLITE_ERROR_SNAPSHOT, "SQLITE_ERROR_SNAPSHOT"},
    {SQLITE_IOERR_READ, "SQLITE_IOERR_READ"},
    {SQLITE_IOERR_SHORT_READ, "SQLITE_IOERR_SHORT_READ"},
    {SQLITE_IOERR_WRITE, "SQLITE_IOERR_WRITE"},
    {SQLITE_IOERR_FSYNC, "SQLITE_IOERR_FSYNC"},
    {SQLITE_IOERR_DIR_FSYNC, "SQLITE_IOERR_DIR_FSYNC"},
    {SQLITE_IOERR_TRUNCATE, "SQLITE_IOERR_TRUNCATE"},
    {SQLITE_IOERR_FSTAT, "SQLITE_IOERR_FSTAT"},
    {SQLITE_IOERR_UNLOCK, "SQLITE_IOERR_UNLOCK"},
    {SQLITE_IOERR_RDLOCK, "SQLITE_IOERR_RDLOCK"},
    {SQLITE_IOERR_DELETE, "SQLITE_IOERR_DELETE"},
    {SQLITE_IOERR_BLOCKED, "SQLITE_IOERR_BLOCKED"},
    {SQLITE_IOERR_NOMEM, "SQLITE_IOERR_NOMEM"},
    {SQLITE_IOERR_ACCESS, "SQLITE_IOERR_ACCESS"},
    {SQLITE_IOERR_CHECKRESERVEDLOCK, "SQLITE_IOERR_CHECKRESERVEDLOCK"},
    {SQLITE_IOERR_LOCK, "SQLITE_IOERR_LOCK"},
    {SQLITE_IOERR_CLOSE, "SQLITE_IOERR_CLOSE"},
    {SQLITE_IOERR_DIR_CLOSE, "SQLITE_IOERR_DIR_CLOSE"},
    {SQLITE_IOERR_SHMOPEN, "SQLITE_IOERR_SHMOPEN"},
    {SQLITE_IOERR_SHMSIZE, "SQLITE_IOERR_SHMSIZE"},
    {SQLITE_IOERR_SHMLOCK, "SQLITE_IOERR_SHMLOCK"},
    {SQLITE_IOERR_SHMMAP, "SQLITE_IOERR_SHMMAP"},
    {SQLITE_IOERR_SEEK, "SQLITE_IOERR_SEEK"},
    {SQLITE_IOERR_DELETE_NOENT, "SQLITE_IOERR_DELETE_NOENT"},
    {SQLITE_IOERR_MMAP, "SQLITE_IOERR_MMAP"},
    {SQLITE_IOERR_GETTEMPPATH, "SQLITE_IOERR_GETTEMPPATH"},
    {SQLITE_IOERR_CONVPATH, "SQLITE_IOERR_CONVPATH"},
    {SQLITE_IOERR_VNODE, "SQLITE_IOERR_VNODE"},
    {SQLITE_IOERR_AUTH, "SQLITE_IOERR_AUTH"},
    {SQLITE_IOERR_BEGIN_ATOMIC, "SQLITE_IOERR_BEGIN_ATOMIC"},
    {SQLITE_IOERR_COMMIT_ATOMIC, "SQLITE_IOERR_COMMIT_ATOMIC"},
    {SQLITE_IOERR_ROLLBACK_ATOMIC, "SQLITE_IOERR_ROLLBACK_ATOMIC"},
    {SQLITE_IOERR_DATA, "SQLITE_IOERR_DATA"},
    {SQLITE_IOERR_CORRUPTFS, "SQLITE_IOERR_CORRUPTFS"},
    {SQLITE_LOCKED_SHAREDCACHE, "SQLITE_LOCKED_SHAREDCACHE"},
    {SQLITE_LOCKED_VTAB, "SQLITE_LOCKED_VTAB"},
    {SQLITE_BUSY_RECOVERY, "SQLITE_BUSY_RECOVERY"},
    {SQLITE_BUSY_SNAPSHOT, "SQLITE_BUSY_SNAPSHOT"},
    {SQLITE_BUSY_TIMEOUT, "SQLITE_BUSY_TIMEOUT"},
    {SQLITE_CANTOPEN_NOTEMPDIR, "SQLITE_CANTOPEN_NOTEMPDIR"},
    {SQLITE_CANTOPEN_ISDIR, "SQLITE_CANTOPEN_ISDIR"},
    {SQLITE_CANTOPEN_FULLPATH, "SQLITE_CANTOPEN_FULLPATH"},
    {SQLITE_CANTOPEN_CONVPATH, "SQLITE_CANTOPEN_CONVPATH"},
    {SQLITE_CANTOPEN_SYMLINK, "SQLITE_CANTOPEN_SYMLINK"},
    {SQLITE_CORRUPT_VTAB, "SQLITE_CORRUPT_VTAB"},
    {SQLITE_CORRUPT_SEQUENCE, "SQLITE_CORRUPT_SEQUENCE"},
    {SQLITE_CORRUPT_INDEX, "SQLITE_CORRUPT_INDEX"},
    {SQLITE_READONLY_RECOVERY, "SQLITE_READONLY_RECOVERY"},
    {SQLITE_READONLY_CANTLOCK, "SQLITE_READONLY_CANTLOCK"},
    {SQLITE_READONLY_ROLLBACK, "SQLITE_READONLY_ROLLBACK"},
    {SQLITE_READONLY_DBMOVED, "SQLITE_READONLY_DBMOVED"},
    {SQLITE_READONLY_CANTINIT, "SQLITE_READONLY_CANTINIT"},
    {SQLITE_READONLY_DIRECTORY, "SQLITE_READONLY_DIRECTORY"},
    {SQLITE_ABORT_ROLLBACK, "SQLITE_ABORT_ROLLBACK"},
    {SQLITE_CONSTRAINT_CHECK, "SQLITE_CONSTRAINT_CHECK"},
    {SQLITE_CONSTRAINT_COMMITHOOK, "SQLITE_CONSTRAINT_COMMITHOOK"},
    {SQLITE_CONSTRAINT_FOREIGNKEY, "SQLITE_CONSTRAINT_FOREIGNKEY"},
    {SQLITE_CONSTRAINT_FUNCTION, "SQLITE_CONSTRAINT_FUNCTION"},
    {SQLITE_CONSTRAINT_NOTNULL, "SQLITE_CONSTRAINT_NOTNULL"},
    {SQLITE_CONSTRAINT_PRIMARYKEY, "SQLITE_CONSTRAINT_PRIMARYKEY"},
    {SQLITE_CONSTRAINT_TRIGGER, "SQLITE_CONSTRAINT_TRIGGER"},
    {SQLITE_CONSTRAINT_UNIQUE, "SQLITE_CONSTRAINT_UNIQUE"},
    {SQLITE_CONSTRAINT_VTAB, "SQLITE_CONSTRAINT_VTAB"},
    {SQLITE_CONSTRAINT_ROWID, "SQLITE_CONSTRAINT_ROWID"},
    {SQLITE_CONSTRAINT_PINNED, "SQLITE_CONSTRAINT_PINNED"},
    {SQLITE_CONSTRAINT_DATATYPE, "SQLITE_CONSTRAINT_DATATYPE"},
    {SQLITE_NOTICE_RECOVER_WAL, "SQLITE_NOTICE_RECOVER_WAL"},
    {SQLITE_NOTICE_RECOVER_ROLLBACK, "SQLITE_NOTICE_RECOVER_ROLLBACK"},
    {SQLITE_WARNING_AUTOINDEX, "SQLITE_WARNING_AUTOINDEX"},
    {SQLITE_AUTH_USER, "SQLITE_AUTH_USER"},
    {SQLITE_OK_LOAD_PERMANENTLY, "SQLITE_OK_LOAD_PERMANENTLY"},
}};

std::string describe(int resultCode, int extendedResultCode, const std::string& message, const std::string& sql) {
    std::string text = "SQLite error " + std::to_string(resultCode) + " (" +
                       DatabaseError::codeName(extendedResultCode) + "): " + message;
    if (!sql.empty()) text += " - while executing `" + sql + "`";
    return text;
}

}  // namespace

DatabaseError::DatabaseError(int resultCode, int extendedResultCode, std::string message, std::string sql)
    : EngineError(resultCode, extendedResultCode, codeName(extendedResultCode), message,
                  describe(resultCode, extendedResultCode, message, sql)),
      sql_(std::move(sql)) {}

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

std::string DatabaseError::codeName(int code) {
    for (const auto& entry : kCodeNames) {
        if (entry.code == code) return entry.name;
    }
    for (const auto& entry : kCodeNames) {
        if (entry.code == (code & 0xff)) return entry.name;
    }
    return "SQLITE_UNKNOWN_" + std::to_string(code);
}

RecordDecodingError::RecordDecodingError(std::string_view table, std::string_view column, std::string_view reason)
    : std::runtime_error("could not read column \"" + std::string(column) + "\" of \"" + std::string(table) +
                         "\": " + std::string(reason)),
      column_(column) {}

}  // namespace notificationdb
