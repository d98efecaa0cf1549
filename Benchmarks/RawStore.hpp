#pragma once

// The baseline of the benchmarks: the store's and the updater's work written directly on the
// sqlite3 C API, as a careful hand-written implementation would do it. It runs the same SQL text
// in the same transactions on the same kind of connections (a writer in WAL mode and a
// read-only reader, foreign keys on, default synchronous, busy time-out), keeps every statement
// prepared for the life of its connection, and reads rows into plain structs.

#include <sqlite3.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace notificationdb::bench {

using Timestamp = std::chrono::system_clock::time_point;

struct RawNotification {
    std::optional<std::int64_t> id;
    std::optional<std::string> customerId;
    Timestamp createdDate;
    std::string version;
    std::string analyticsTag;
    std::optional<std::string> title;
    std::optional<std::string> body;
    std::optional<std::string> bannerUrl;
    bool isMarketing = false;
    std::optional<std::int64_t> appId;
    std::int64_t status = 0;
    std::int64_t notificationKind = 0;
};

struct RawButton {
    std::optional<std::int64_t> id;
    std::optional<std::string> buttonId;
    std::optional<std::string> title;
    bool visible = false;
    std::optional<std::int64_t> notificationId;
    std::optional<std::int64_t> actionKind;
    std::optional<std::vector<std::uint8_t>> userAction;
};

struct RawInfo {
    RawNotification notification;
    std::optional<RawButton> button;
};

// The stored text form of a point in time, "YYYY-MM-DD HH:MM:SS.mmm" in UTC.
std::string formatDate(Timestamp instant);
// Reads that form back; throws on anything else.
Timestamp parseDate(std::string_view text);

// One prepared statement, finalized with its owner.
class RawStatement {
public:
    RawStatement() = default;
    RawStatement(const RawStatement&) = delete;
    RawStatement& operator=(const RawStatement&) = delete;
    ~RawStatement() { sqlite3_finalize(statement_); }

    // Prepared on first use on `db`, then reused.
    sqlite3_stmt* get(sqlite3* db, std::string_view sql);
    bool prepared() const noexcept { return statement_ != nullptr; }

    // Rows that the last complete read through the statement returned: the capacity to reserve
    // for the next one.
    std::size_t previousRowCount = 0;

private:
    sqlite3_stmt* statement_ = nullptr;
};

// The statements that name a set of ids, as the library writes them: `before` + "(ids)" + `after`,
// up to 128 ids as parameters of their own numbered from `firstIndex` (statements for 1 to 8 ids
// and for every eighth count up to 128, a smaller set repeating its last id), an empty or larger
// set as one JSON array parameter.
class RawIDSetStatement {
public:
    RawIDSetStatement(std::string before, std::string after, int firstIndex)
        : before_(std::move(before)), after_(std::move(after)), firstIndex_(firstIndex) {}

    // The statement for `ids`, prepared on first use, with the ids bound; `json` keeps the text
    // of a JSON array alive while the statement runs.
    sqlite3_stmt* bound(sqlite3* db, const std::vector<std::int64_t>& ids, std::string& json);
    // The slot of the statement that `bound` used last.
    RawStatement& last() noexcept { return variants_[last_]; }

private:
    std::string before_;
    std::string after_;
    int firstIndex_;
    std::size_t last_ = 0;
    RawStatement variants_[24];
};

// Throws a `std::runtime_error` with SQLite's message when `rc` is not one of the expected codes.
void check(sqlite3* db, int rc, int expected = SQLITE_OK);
// Steps a statement that returns no rows, then resets it.
void run(sqlite3* db, sqlite3_stmt* statement);

// Binds the twelve columns of a notification to parameters 1...12.
void bindNotification(sqlite3_stmt* statement, const RawNotification& notification);
// Binds the seven columns of a button to parameters 1...7, with `notificationId` as given.
void bindButton(sqlite3_stmt* statement, const RawButton& button, std::optional<std::int64_t> notificationId);

// The SQL that both the library and the baseline run.
namespace sql {
extern const std::string fetchAll;
extern const std::string fetchByKind;
extern const std::string insertNotification;
extern const std::string insertButton;
extern const std::string updateButton;
}  // namespace sql

class RawStore {
public:
    // Opens the writer (WAL, foreign keys, busy time-out) and makes sure both tables exist, in
    // one immediate transaction. The reader opens on the first read.
    explicit RawStore(const std::filesystem::path& path);
    ~RawStore();
    RawStore(const RawStore&) = delete;
    RawStore& operator=(const RawStore&) = delete;

    void save(const RawInfo& info);
    std::vector<RawInfo> fetchNotifications(const std::optional<std::vector<std::int64_t>>& ids);
    std::int64_t notificationsCount();
    bool containsVantro(const std::string& version);
    bool containsNotification(std::int64_t kind, const std::string& customer, std::optional<std::int64_t> appID,
                              const std::optional<std::string>& version);
    void updateStatus(const std::vector<std::int64_t>& ids, std::int64_t status);
    void updateButtonVisibility(const std::vector<std::int64_t>& ids, bool isVisible);
    void deleteNotifications(const std::vector<const RawInfo*>& infos);
    void deleteAllNotifications(std::int64_t kind);

    // Whether a committed write changed "notification" (what the store's change notice is made of).
    bool takeChangeMark() noexcept;

private:
    class WriteTransaction;
    class ReadTransaction;

    sqlite3* openReader();
    void deleteNamed(const std::vector<const RawInfo*>& infos);
    static void updateHook(void* context, int operation, const char* database, const char* table, sqlite3_int64 rowID);

    sqlite3* writer_ = nullptr;
    sqlite3* reader_ = nullptr;
    bool pendingChange_ = false;
    bool committedChange_ = false;

    // Writer statements.
    RawStatement beginImmediate_, commitWriter_, rollbackWriter_;
    RawStatement exists_, contentDuplicate_[2][2], insertNotification_, updateButton_, insertButton_;
    RawStatement updateVisibility_, fetchByKind_;
    RawIDSetStatement updateStatus_{"UPDATE \"notification\" SET \"status\" = ?1 WHERE \"id\" IN ", "", 2};
    RawIDSetStatement deleteNotifications_{"DELETE FROM \"notification\" WHERE \"id\" IN ", "", 1};
    RawIDSetStatement deleteButtons_{"DELETE FROM \"notificationButton\" WHERE \"id\" IN ", "", 1};
    // Reader statements.
    RawStatement beginDeferred_, commitReader_, rollbackReader_;
    RawStatement fetchAll_, count_, containsVantro_, containsNotification_[2][2];
    RawIDSetStatement fetchByIDs_;
};

// The updater's work over the baseline store: a batch made distinct by notification id (the
// first wins), one save per entry, then the pruning pass.
void rawReceive(RawStore& store, const std::vector<RawInfo>& notifications);
// Reads everything, marks what is 30 days old or older and all but the 100 newest of each
// customer, and deletes those in one write.
void rawCleanUp(RawStore& store);

}  // namespace notificationdb::bench
