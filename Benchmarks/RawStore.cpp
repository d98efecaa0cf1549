#include "RawStore.hpp"

#include <algorithm>
#include <charconv>
#include <map>
#include <stdexcept>
#include <unordered_set>
#include <utility>

namespace notificationdb::bench {

namespace sql {

namespace {
const std::string joinedSelect =
    "SELECT \"notification\".*, \"notificationButton\".* FROM \"notification\" "
    "LEFT JOIN \"notificationButton\" ON \"notificationButton\".\"notificationId\" = \"notification\".\"id\"";
const std::string newestFirst = " ORDER BY \"notification\".\"createdDate\" DESC";
}  // namespace

const std::string fetchAll = joinedSelect + newestFirst;
const std::string fetchByKind = joinedSelect + " WHERE \"notification\".\"notificationKind\" = ?";
const std::string insertNotification =
    "INSERT INTO \"notification\" (\"id\", \"customerId\", \"createdDate\", \"version\", \"analyticsTag\", "
    "\"title\", \"body\", \"bannerUrl\", \"isMarketing\", \"appId\", \"status\", \"notificationKind\") "
    "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
const std::string insertButton =
    "INSERT INTO \"notificationButton\" (\"id\", \"buttonId\", \"title\", \"visible\", \"notificationId\", "
    "\"actionKind\", \"userAction\") VALUES (?, ?, ?, ?, ?, ?, ?)";
const std::string updateButton =
    "UPDATE \"notificationButton\" SET \"buttonId\" = ?, \"title\" = ?, \"visible\" = ?, \"notificationId\" = ?, "
    "\"actionKind\" = ?, \"userAction\" = ? WHERE \"id\" = ?";

}  // namespace sql

namespace {

constexpr int busyTimeoutMilliseconds = 2000;
constexpr std::chrono::seconds ageLimit{2'592'000};
constexpr std::size_t perCustomerLimit = 100;

const std::string selectStar = "SELECT * FROM \"notification\" WHERE ";
const std::string contentDuplicate[2][2] = {
    {selectStar + "\"customerId\" IS NULL AND \"notificationKind\" = ?2 AND \"version\" = ?3 LIMIT 1",
     selectStar +
         "\"customerId\" IS NULL AND \"notificationKind\" = ?2 AND \"version\" = ?3 AND \"appId\" = ?4 LIMIT 1"},
    {selectStar + "\"customerId\" = ?1 AND \"notificationKind\" = ?2 AND \"version\" = ?3 LIMIT 1",
     selectStar + "\"customerId\" = ?1 AND \"notificationKind\" = ?2 AND \"version\" = ?3 AND \"appId\" = ?4 LIMIT 1"},
};
const std::string containsBase =
    "SELECT * FROM \"notification\" WHERE \"customerId\" = ?1 AND \"notificationKind\" = ?2";
const std::string containsNotificationSQL[2][2] = {
    {containsBase + " LIMIT 1", containsBase + " AND \"version\" = ?4 LIMIT 1"},
    {containsBase + " AND \"appId\" = ?3 LIMIT 1", containsBase + " AND \"appId\" = ?3 AND \"version\" = ?4 LIMIT 1"},
};

const char* const createNotification =
    "CREATE TABLE \"notification\" ("
    "\"id\" INTEGER PRIMARY KEY AUTOINCREMENT, \"customerId\" TEXT, \"createdDate\" DATETIME NOT NULL, "
    "\"version\" TEXT NOT NULL, \"analyticsTag\" TEXT NOT NULL, \"title\" TEXT, \"body\" TEXT, \"bannerUrl\" TEXT, "
    "\"isMarketing\" BOOLEAN NOT NULL, \"appId\" INTEGER, \"status\" INTEGER NOT NULL, "
    "\"notificationKind\" INTEGER NOT NULL)";
const char* const createButton =
    "CREATE TABLE \"notificationButton\" ("
    "\"id\" INTEGER PRIMARY KEY AUTOINCREMENT, \"buttonId\" TEXT, \"title\" TEXT, \"visible\" BOOLEAN NOT NULL, "
    "\"notificationId\" INTEGER REFERENCES \"notification\"(\"id\") ON DELETE CASCADE, \"actionKind\" INTEGER, "
    "\"userAction\" BLOB);"
    "CREATE INDEX \"notificationButton_on_notificationId\" ON \"notificationButton\"(\"notificationId\")";

// Resets the statement when the read of its rows ends, whichever way it ends.
class ResetOnExit {
public:
    explicit ResetOnExit(sqlite3_stmt* statement) : statement_(statement) {}
    ResetOnExit(const ResetOnExit&) = delete;
    ResetOnExit& operator=(const ResetOnExit&) = delete;
    ~ResetOnExit() { sqlite3_reset(statement_); }

private:
    sqlite3_stmt* statement_;
};

bool stepRow(sqlite3* db, sqlite3_stmt* statement) {
    const int rc = sqlite3_step(statement);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    check(db, rc);
    return false;
}

void bindText(sqlite3_stmt* statement, int index, const std::optional<std::string>& text) {
    if (text) {
        sqlite3_bind_text(statement, index, text->data(), static_cast<int>(text->size()), SQLITE_STATIC);
    } else {
        sqlite3_bind_null(statement, index);
    }
}

void bindInteger(sqlite3_stmt* statement, int index, const std::optional<std::int64_t>& value) {
    if (value) {
        sqlite3_bind_int64(statement, index, *value);
    } else {
        sqlite3_bind_null(statement, index);
    }
}

void bindStaticText(sqlite3_stmt* statement, int index, const std::string& text) {
    sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

// Column readers in the manner of a careful hand-written decoder: one storage-class lookup per
// column, the value read straight into the record's member, which starts out empty.
int columnType(sqlite3_stmt* statement, int column) {
    return sqlite3_column_type(statement, column);
}

void assignText(sqlite3_stmt* statement, int column, int type, std::string& out) {
    if (type != SQLITE_TEXT) throw std::runtime_error("value is not text");
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
    out.assign(text, static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
}

void readText(sqlite3_stmt* statement, int column, std::optional<std::string>& out) {
    const int type = columnType(statement, column);
    if (type == SQLITE_NULL) return;
    assignText(statement, column, type, out.emplace());
}

void readText(sqlite3_stmt* statement, int column, std::string& out) {
    const int type = columnType(statement, column);
    if (type == SQLITE_NULL) throw std::runtime_error("required text is NULL");
    assignText(statement, column, type, out);
}

void readInteger(sqlite3_stmt* statement, int column, std::optional<std::int64_t>& out) {
    const int type = columnType(statement, column);
    if (type == SQLITE_NULL) return;
    if (type != SQLITE_INTEGER) throw std::runtime_error("value is not an integer");
    out = sqlite3_column_int64(statement, column);
}

std::int64_t requiredInteger(sqlite3_stmt* statement, int column) {
    const int type = columnType(statement, column);
    if (type != SQLITE_INTEGER) throw std::runtime_error("required integer is NULL or no integer");
    return sqlite3_column_int64(statement, column);
}

std::int64_t enumeration(std::int64_t value, std::int64_t caseCount) {
    if (value < 0 || value >= caseCount) throw std::runtime_error("integer is no case of its enumeration");
    return value;
}

// The twelve columns of "notification" from `first` on, into an empty record.
void readNotification(sqlite3_stmt* statement, int first, RawNotification& notification) {
    notification.status = enumeration(requiredInteger(statement, first + 10), 3);
    notification.notificationKind = enumeration(requiredInteger(statement, first + 11), 5);
    readInteger(statement, first + 0, notification.id);
    readText(statement, first + 1, notification.customerId);
    if (columnType(statement, first + 2) != SQLITE_TEXT) throw std::runtime_error("date is no text");
    notification.createdDate =
        parseDate(std::string_view(reinterpret_cast<const char*>(sqlite3_column_text(statement, first + 2)),
                                   static_cast<std::size_t>(sqlite3_column_bytes(statement, first + 2))));
    readText(statement, first + 3, notification.version);
    readText(statement, first + 4, notification.analyticsTag);
    readText(statement, first + 5, notification.title);
    readText(statement, first + 6, notification.body);
    readText(statement, first + 7, notification.bannerUrl);
    notification.isMarketing = requiredInteger(statement, first + 8) != 0;
    readInteger(statement, first + 9, notification.appId);
}

// The seven columns of "notificationButton" from `first` on; absent when the join found none
// (its "id", the row id, is NULL).
void readButton(sqlite3_stmt* statement, int first, std::optional<RawButton>& out) {
    if (columnType(statement, first) == SQLITE_NULL) return;
    RawButton& button = out.emplace();
    std::optional<std::int64_t> kind;
    readInteger(statement, first + 5, kind);
    if (kind) button.actionKind = enumeration(*kind, 7);
    readInteger(statement, first + 0, button.id);
    readText(statement, first + 1, button.buttonId);
    readText(statement, first + 2, button.title);
    button.visible = requiredInteger(statement, first + 3) != 0;
    readInteger(statement, first + 4, button.notificationId);
    const int type = columnType(statement, first + 6);
    if (type == SQLITE_BLOB || type == SQLITE_TEXT) {
        const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement, first + 6));
        const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, first + 6));
        button.userAction.emplace(bytes, bytes + size);
    } else if (type != SQLITE_NULL) {
        throw std::runtime_error("value is not a byte string");
    }
}

// Every row of the joined read, each pair built in place in the list, whose capacity is that
// of the statement's previous run.
std::vector<RawInfo> readJoinedRows(sqlite3* db, RawStatement& slot, sqlite3_stmt* statement) {
    ResetOnExit reset(statement);
    std::vector<RawInfo> result;
    result.reserve(slot.previousRowCount);
    while (stepRow(db, statement)) {
        RawInfo& info = result.emplace_back();
        readNotification(statement, 0, info.notification);
        readButton(statement, 12, info.button);
    }
    slot.previousRowCount = result.size();
    // A list that came out much shorter than the last one gives the spare room back.
    if (result.size() < result.capacity() / 2) result.shrink_to_fit();
    return result;
}

// Whether the query finds a row; the row must read as a notification.
bool findsNotification(sqlite3* db, sqlite3_stmt* statement) {
    ResetOnExit reset(statement);
    if (!stepRow(db, statement)) return false;
    RawNotification notification;
    readNotification(statement, 0, notification);
    return true;
}

std::string jsonArray(const std::vector<std::int64_t>& ids) {
    std::string text;
    text.reserve(ids.size() * 8 + 2);
    text += '[';
    char buffer[24];
    for (const std::int64_t id : ids) {
        if (text.size() > 1) text += ',';
        const auto end = std::to_chars(buffer, buffer + sizeof buffer, id).ptr;
        text.append(buffer, end);
    }
    text += ']';
    return text;
}

void putDigits(char* out, unsigned value, int width) {
    for (int i = width - 1; i >= 0; --i) {
        out[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
}

unsigned digits(std::string_view text, std::size_t position, std::size_t count) {
    unsigned value = 0;
    for (std::size_t i = position; i < position + count; ++i) {
        const char c = text[i];
        if (c < '0' || c > '9') throw std::runtime_error("malformed date");
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    return value;
}

}  // namespace

std::string formatDate(Timestamp instant) {
    using namespace std::chrono;
    const auto sinceEpoch = floor<milliseconds>(instant.time_since_epoch());
    const auto day = floor<days>(sinceEpoch);
    const year_month_day date{sys_days(day)};
    const hh_mm_ss time{sinceEpoch - day};
    std::string text(23, ' ');
    putDigits(&text[0], static_cast<unsigned>(static_cast<int>(date.year())), 4);
    text[4] = '-';
    putDigits(&text[5], static_cast<unsigned>(date.month()), 2);
    text[7] = '-';
    putDigits(&text[8], static_cast<unsigned>(date.day()), 2);
    putDigits(&text[11], static_cast<unsigned>(time.hours().count()), 2);
    text[13] = ':';
    putDigits(&text[14], static_cast<unsigned>(time.minutes().count()), 2);
    text[16] = ':';
    putDigits(&text[17], static_cast<unsigned>(time.seconds().count()), 2);
    text[19] = '.';
    putDigits(&text[20], static_cast<unsigned>(time.subseconds().count()), 3);
    return text;
}

Timestamp parseDate(std::string_view text) {
    using namespace std::chrono;
    if (text.size() != 23 || text[4] != '-' || text[7] != '-' || text[10] != ' ' || text[13] != ':' ||
        text[16] != ':' || text[19] != '.') {
        throw std::runtime_error("malformed date");
    }
    const year_month_day date{year(static_cast<int>(digits(text, 0, 4))), month(digits(text, 5, 2)),
                              day(digits(text, 8, 2))};
    if (!date.ok()) throw std::runtime_error("impossible date");
    const auto offset = hours(digits(text, 11, 2)) + minutes(digits(text, 14, 2)) + seconds(digits(text, 17, 2)) +
                        milliseconds(digits(text, 20, 3));
    return Timestamp(duration_cast<Timestamp::duration>(sys_days(date).time_since_epoch() + offset));
}

sqlite3_stmt* RawIDSetStatement::bound(sqlite3* db, const std::vector<std::int64_t>& ids, std::string& json) {
    const std::size_t count = ids.size();
    const std::size_t variant = count == 0 || count > 128 ? 0 : count <= 8 ? count : 7 + (count + 7) / 8;
    const std::size_t slots = variant <= 8 ? variant : 8 * (variant - 7);
    last_ = variant;
    RawStatement& slot = variants_[variant];
    if (!slot.prepared()) {
        std::string sql = before_ + "(";
        if (variant == 0) {
            sql += "SELECT value FROM json_each(?" + std::to_string(firstIndex_) + ")";
        } else {
            for (std::size_t i = 0; i < slots; ++i) {
                sql += (i > 0 ? ", ?" : "?") + std::to_string(firstIndex_ + static_cast<int>(i));
            }
        }
        sql += ")" + after_;
        slot.get(db, sql);
    }
    sqlite3_stmt* statement = slot.get(db, {});
    if (variant == 0) {
        json = jsonArray(ids);
        bindStaticText(statement, firstIndex_, json);
        return statement;
    }
    int index = firstIndex_;
    for (const std::int64_t id : ids) sqlite3_bind_int64(statement, index++, id);
    for (std::size_t i = count; i < slots; ++i) sqlite3_bind_int64(statement, index++, ids.back());
    return statement;
}

sqlite3_stmt* RawStatement::get(sqlite3* db, std::string_view sql) {
    if (statement_ == nullptr) {
        check(db, sqlite3_prepare_v3(db, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT,
                                     &statement_, nullptr));
    }
    return statement_;
}

void check(sqlite3* db, int rc, int expected) {
    if (rc == expected) return;
    throw std::runtime_error(std::string("sqlite error ") + std::to_string(rc) + ": " + sqlite3_errmsg(db));
}

void run(sqlite3* db, sqlite3_stmt* statement) {
    const int rc = sqlite3_step(statement);
    sqlite3_reset(statement);
    check(db, rc, SQLITE_DONE);
}

void bindNotification(sqlite3_stmt* statement, const RawNotification& notification) {
    bindInteger(statement, 1, notification.id);
    bindText(statement, 2, notification.customerId);
    const std::string date = formatDate(notification.createdDate);
    sqlite3_bind_text(statement, 3, date.data(), static_cast<int>(date.size()), SQLITE_TRANSIENT);
    bindStaticText(statement, 4, notification.version);
    bindStaticText(statement, 5, notification.analyticsTag);
    bindText(statement, 6, notification.title);
    bindText(statement, 7, notification.body);
    bindText(statement, 8, notification.bannerUrl);
    sqlite3_bind_int64(statement, 9, notification.isMarketing ? 1 : 0);
    bindInteger(statement, 10, notification.appId);
    sqlite3_bind_int64(statement, 11, notification.status);
    sqlite3_bind_int64(statement, 12, notification.notificationKind);
}

void bindButton(sqlite3_stmt* statement, const RawButton& button, std::optional<std::int64_t> notificationId) {
    bindInteger(statement, 1, button.id);
    bindText(statement, 2, button.buttonId);
    bindText(statement, 3, button.title);
    sqlite3_bind_int64(statement, 4, button.visible ? 1 : 0);
    bindInteger(statement, 5, notificationId);
    bindInteger(statement, 6, button.actionKind);
    if (button.userAction) {
        static const std::uint8_t empty = 0;
        const void* data = button.userAction->empty() ? &empty : button.userAction->data();
        sqlite3_bind_blob(statement, 7, data, static_cast<int>(button.userAction->size()), SQLITE_STATIC);
    } else {
        sqlite3_bind_null(statement, 7);
    }
}

// BEGIN IMMEDIATE ... COMMIT on the writer; rolled back when not committed.
class RawStore::WriteTransaction {
public:
    explicit WriteTransaction(RawStore& store) : store_(store) {
        store_.pendingChange_ = false;
        run(store_.writer_, store_.beginImmediate_.get(store_.writer_, "BEGIN IMMEDIATE TRANSACTION"));
    }
    WriteTransaction(const WriteTransaction&) = delete;
    WriteTransaction& operator=(const WriteTransaction&) = delete;
    ~WriteTransaction() {
        if (committed_) return;
        store_.pendingChange_ = false;
        if (sqlite3_get_autocommit(store_.writer_) == 0) {
            sqlite3_stmt* rollback = store_.rollbackWriter_.get(store_.writer_, "ROLLBACK TRANSACTION");
            sqlite3_step(rollback);
            sqlite3_reset(rollback);
        }
    }
    void commit() {
        run(store_.writer_, store_.commitWriter_.get(store_.writer_, "COMMIT TRANSACTION"));
        committed_ = true;
        if (store_.pendingChange_) store_.committedChange_ = true;
        store_.pendingChange_ = false;
    }

private:
    RawStore& store_;
    bool committed_ = false;
};

// BEGIN DEFERRED ... COMMIT on the reader.
class RawStore::ReadTransaction {
public:
    explicit ReadTransaction(RawStore& store) : store_(store) {
        run(store_.reader_, store_.beginDeferred_.get(store_.reader_, "BEGIN DEFERRED TRANSACTION"));
    }
    ReadTransaction(const ReadTransaction&) = delete;
    ReadTransaction& operator=(const ReadTransaction&) = delete;
    ~ReadTransaction() {
        if (committed_ || sqlite3_get_autocommit(store_.reader_) != 0) return;
        sqlite3_stmt* rollback = store_.rollbackReader_.get(store_.reader_, "ROLLBACK TRANSACTION");
        sqlite3_step(rollback);
        sqlite3_reset(rollback);
    }
    void commit() {
        run(store_.reader_, store_.commitReader_.get(store_.reader_, "COMMIT TRANSACTION"));
        committed_ = true;
    }

private:
    RawStore& store_;
    bool committed_ = false;
};

RawStore::RawStore(const std::filesystem::path& path)
    : fetchByIDs_(sql::joinedSelect + " WHERE \"notification\".\"id\" IN ", sql::newestFirst, 1) {
    const int rc = sqlite3_open_v2(path.c_str(), &writer_,
                                   SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) {
        const std::string message = writer_ != nullptr ? sqlite3_errmsg(writer_) : "out of memory";
        sqlite3_close_v2(writer_);
        throw std::runtime_error("cannot open " + path.string() + ": " + message);
    }
    try {
        sqlite3_extended_result_codes(writer_, 1);
        sqlite3_busy_timeout(writer_, busyTimeoutMilliseconds);
        check(writer_, sqlite3_exec(writer_, "PRAGMA foreign_keys = ON", nullptr, nullptr, nullptr));
        check(writer_, sqlite3_exec(writer_, "PRAGMA journal_mode = WAL", nullptr, nullptr, nullptr));
        sqlite3_update_hook(writer_, &RawStore::updateHook, this);

        // The schema check, one immediate transaction: each table created only when missing.
        WriteTransaction transaction(*this);
        RawStatement tableExists;
        sqlite3_stmt* exists =
            tableExists.get(writer_, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ? COLLATE NOCASE");
        const auto hasTable = [&](const char* name) {
            sqlite3_bind_text(exists, 1, name, -1, SQLITE_STATIC);
            const bool found = stepRow(writer_, exists);
            sqlite3_reset(exists);
            return found;
        };
        if (!hasTable("notification"))
            check(writer_, sqlite3_exec(writer_, createNotification, nullptr, nullptr, nullptr));
        if (!hasTable("notificationButton"))
            check(writer_, sqlite3_exec(writer_, createButton, nullptr, nullptr, nullptr));
        transaction.commit();
    } catch (...) {
        sqlite3_close_v2(writer_);
        throw;
    }
}

RawStore::~RawStore() {
    // Statements are finalized by their members; close_v2 waits for that.
    sqlite3_close_v2(reader_);
    sqlite3_close_v2(writer_);
}

sqlite3* RawStore::openReader() {
    if (reader_ != nullptr) return reader_;
    const std::string path = sqlite3_db_filename(writer_, "main");
    sqlite3* reader = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &reader, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) {
        sqlite3_close_v2(reader);
        throw std::runtime_error("cannot open reader");
    }
    sqlite3_extended_result_codes(reader, 1);
    sqlite3_busy_timeout(reader, busyTimeoutMilliseconds);
    check(reader, sqlite3_exec(reader, "PRAGMA foreign_keys = ON", nullptr, nullptr, nullptr));
    reader_ = reader;
    return reader_;
}

void RawStore::updateHook(void* context, int /*operation*/, const char* database, const char* table,
                          sqlite3_int64 /*rowID*/) {
    auto* store = static_cast<RawStore*>(context);
    if (std::string_view(database) == "main" && std::string_view(table) == "notification") store->pendingChange_ = true;
}

bool RawStore::takeChangeMark() noexcept {
    return std::exchange(committedChange_, false);
}

void RawStore::save(const RawInfo& info) {
    WriteTransaction transaction(*this);
    const RawNotification& notification = info.notification;
    if (notification.id) {
        sqlite3_stmt* exists = exists_.get(writer_, "SELECT 1 FROM \"notification\" WHERE \"id\" = ?");
        bool stored = false;
        {
            ResetOnExit reset(exists);
            sqlite3_bind_int64(exists, 1, *notification.id);
            stored = stepRow(writer_, exists);
        }
        if (stored) {
            transaction.commit();
            return;
        }
    }
    if (notification.notificationKind != 0) {
        const bool hasCustomer = notification.customerId.has_value();
        const bool hasApp = notification.appId.has_value();
        sqlite3_stmt* duplicate =
            contentDuplicate_[hasCustomer][hasApp].get(writer_, contentDuplicate[hasCustomer][hasApp]);
        if (hasCustomer) bindStaticText(duplicate, 1, *notification.customerId);
        sqlite3_bind_int64(duplicate, 2, notification.notificationKind);
        bindStaticText(duplicate, 3, notification.version);
        if (hasApp) sqlite3_bind_int64(duplicate, 4, *notification.appId);
        if (findsNotification(writer_, duplicate)) {
            transaction.commit();
            return;
        }
    }
    sqlite3_stmt* insert = insertNotification_.get(writer_, sql::insertNotification);
    bindNotification(insert, notification);
    run(writer_, insert);
    const std::int64_t id = notification.id ? *notification.id : sqlite3_last_insert_rowid(writer_);
    if (info.button) {
        const RawButton& button = *info.button;
        bool updated = false;
        if (button.id) {
            // A button that names an existing row overwrites it.
            sqlite3_stmt* update = updateButton_.get(writer_, sql::updateButton);
            bindText(update, 1, button.buttonId);
            bindText(update, 2, button.title);
            sqlite3_bind_int64(update, 3, button.visible ? 1 : 0);
            sqlite3_bind_int64(update, 4, id);
            bindInteger(update, 5, button.actionKind);
            if (button.userAction) {
                sqlite3_bind_blob(update, 6, button.userAction->data(), static_cast<int>(button.userAction->size()),
                                  SQLITE_STATIC);
            } else {
                sqlite3_bind_null(update, 6);
            }
            sqlite3_bind_int64(update, 7, *button.id);
            run(writer_, update);
            updated = sqlite3_changes(writer_) > 0;
        }
        if (!updated) {
            sqlite3_stmt* insertButton = insertButton_.get(writer_, sql::insertButton);
            bindButton(insertButton, button, id);
            run(writer_, insertButton);
        }
    }
    transaction.commit();
}

std::vector<RawInfo> RawStore::fetchNotifications(const std::optional<std::vector<std::int64_t>>& ids) {
    sqlite3* reader = openReader();
    ReadTransaction transaction(*this);
    std::vector<RawInfo> result;
    if (!ids) {
        result = readJoinedRows(reader, fetchAll_, fetchAll_.get(reader, sql::fetchAll));
    } else {
        std::string json;
        sqlite3_stmt* statement = fetchByIDs_.bound(reader, *ids, json);
        result = readJoinedRows(reader, fetchByIDs_.last(), statement);
    }
    transaction.commit();
    return result;
}

std::int64_t RawStore::notificationsCount() {
    sqlite3* reader = openReader();
    ReadTransaction transaction(*this);
    sqlite3_stmt* statement = count_.get(reader, "SELECT COUNT(*) FROM \"notification\"");
    std::int64_t count = 0;
    {
        ResetOnExit reset(statement);
        if (stepRow(reader, statement)) count = sqlite3_column_int64(statement, 0);
    }
    transaction.commit();
    return count;
}

bool RawStore::containsVantro(const std::string& version) {
    sqlite3* reader = openReader();
    ReadTransaction transaction(*this);
    sqlite3_stmt* statement =
        containsVantro_.get(reader, "SELECT * FROM \"notification\" WHERE \"version\" = ? LIMIT 1");
    bindStaticText(statement, 1, version);
    const bool found = findsNotification(reader, statement);
    transaction.commit();
    return found;
}

bool RawStore::containsNotification(std::int64_t kind, const std::string& customer, std::optional<std::int64_t> appID,
                                    const std::optional<std::string>& version) {
    sqlite3* reader = openReader();
    ReadTransaction transaction(*this);
    const int hasApp = appID ? 1 : 0;
    const int hasVersion = version ? 1 : 0;
    sqlite3_stmt* statement =
        containsNotification_[hasApp][hasVersion].get(reader, containsNotificationSQL[hasApp][hasVersion]);
    bindStaticText(statement, 1, customer);
    sqlite3_bind_int64(statement, 2, kind);
    if (appID) sqlite3_bind_int64(statement, 3, *appID);
    if (version) bindStaticText(statement, 4, *version);
    const bool found = findsNotification(reader, statement);
    transaction.commit();
    return found;
}

void RawStore::updateStatus(const std::vector<std::int64_t>& ids, std::int64_t status) {
    WriteTransaction transaction(*this);
    if (!ids.empty()) {
        std::string json;
        sqlite3_stmt* statement = updateStatus_.bound(writer_, ids, json);
        sqlite3_bind_int64(statement, 1, status);
        run(writer_, statement);
    }
    transaction.commit();
}

void RawStore::updateButtonVisibility(const std::vector<std::int64_t>& ids, bool isVisible) {
    WriteTransaction transaction(*this);
    sqlite3_stmt* statement = updateVisibility_.get(
        writer_, "UPDATE \"notificationButton\" SET \"visible\" = ? WHERE \"notificationId\" = ?");
    for (const std::int64_t id : ids) {
        sqlite3_bind_int64(statement, 1, isVisible ? 1 : 0);
        sqlite3_bind_int64(statement, 2, id);
        const int rc = sqlite3_step(statement);
        sqlite3_reset(statement);
        if (rc != SQLITE_DONE) {
            // The first failing id ends the loop; the updates before it commit.
            if (sqlite3_get_autocommit(writer_) != 0) check(writer_, rc, SQLITE_DONE);
            break;
        }
    }
    transaction.commit();
}

void RawStore::deleteNamed(const std::vector<const RawInfo*>& infos) {
    std::vector<std::int64_t> notificationIDs;
    std::vector<std::int64_t> buttonIDs;
    notificationIDs.reserve(infos.size());
    buttonIDs.reserve(infos.size());
    for (const RawInfo* info : infos) {
        if (info->notification.id) notificationIDs.push_back(*info->notification.id);
        if (info->button && info->button->id) buttonIDs.push_back(*info->button->id);
    }
    // SQLite gathers an IN list into a b-tree first, which takes ids in order at less cost.
    std::sort(notificationIDs.begin(), notificationIDs.end());
    std::sort(buttonIDs.begin(), buttonIDs.end());
    const auto deleteByIDs = [this](RawIDSetStatement& slot, const std::vector<std::int64_t>& ids) {
        if (ids.empty()) return;
        std::string json;
        sqlite3_stmt* statement = slot.bound(writer_, ids, json);
        const int rc = sqlite3_step(statement);
        sqlite3_reset(statement);
        // A failing DELETE is dropped, unless it ended the transaction.
        if (rc != SQLITE_DONE && sqlite3_get_autocommit(writer_) != 0) check(writer_, rc, SQLITE_DONE);
    };
    deleteByIDs(deleteNotifications_, notificationIDs);
    deleteByIDs(deleteButtons_, buttonIDs);
}

void RawStore::deleteNotifications(const std::vector<const RawInfo*>& infos) {
    WriteTransaction transaction(*this);
    deleteNamed(infos);
    transaction.commit();
}

void RawStore::deleteAllNotifications(std::int64_t kind) {
    WriteTransaction transaction(*this);
    sqlite3_stmt* statement = fetchByKind_.get(writer_, sql::fetchByKind);
    sqlite3_bind_int64(statement, 1, kind);
    const std::vector<RawInfo> rows = readJoinedRows(writer_, fetchByKind_, statement);
    std::vector<const RawInfo*> named;
    named.reserve(rows.size());
    for (const RawInfo& row : rows) named.push_back(&row);
    deleteNamed(named);
    transaction.commit();
}

void rawReceive(RawStore& store, const std::vector<RawInfo>& notifications) {
    // A set of the entries by notification id, hashed as the library hashes its pairs, so that
    // the saves run in the same order as the library's (the order the set yields them).
    struct HashByID {
        std::size_t operator()(const RawInfo* info) const noexcept {
            const auto& id = info->notification.id;
            std::size_t seed = std::hash<int>{}(id ? 1 : 0);
            if (id) seed ^= std::hash<std::int64_t>{}(*id) + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
            return seed;
        }
    };
    struct EqualByID {
        bool operator()(const RawInfo* lhs, const RawInfo* rhs) const noexcept {
            return lhs->notification.id == rhs->notification.id;
        }
    };
    std::unordered_set<const RawInfo*, HashByID, EqualByID> distinct;
    for (const RawInfo& info : notifications) distinct.insert(&info);
    if (distinct.empty()) return;
    for (const RawInfo* info : distinct) {
        try {
            store.save(*info);
        } catch (const std::exception&) {
            // A failed save does not stop the next one.
        }
    }
    rawCleanUp(store);
}

void rawCleanUp(RawStore& store) {
    const auto cutOff = std::chrono::system_clock::now() - ageLimit;
    std::vector<RawInfo> stored;
    try {
        stored = store.fetchNotifications(std::nullopt);
    } catch (const std::exception&) {
        return;
    }

    // Entries are equal by notification id: the first marked one stands for all.
    std::unordered_set<std::optional<std::int64_t>> expiredIDs;
    std::vector<const RawInfo*> expired;
    const auto mark = [&](const RawInfo& info) {
        if (expiredIDs.insert(info.notification.id).second) expired.push_back(&info);
    };
    for (const RawInfo& info : stored) {
        if (info.notification.createdDate <= cutOff) mark(info);
    }

    std::map<std::optional<std::string>, std::vector<const RawInfo*>> groups;
    for (const RawInfo& info : stored) groups[info.notification.customerId].push_back(&info);
    for (auto& [customerId, group] : groups) {
        if (group.size() <= perCustomerLimit) continue;
        std::stable_sort(group.begin(), group.end(), [](const RawInfo* lhs, const RawInfo* rhs) {
            return lhs->notification.createdDate > rhs->notification.createdDate;
        });
        for (std::size_t i = perCustomerLimit; i < group.size(); ++i) mark(*group[i]);
    }

    if (!expired.empty()) store.deleteNotifications(expired);
}

}  // namespace notificationdb::bench
