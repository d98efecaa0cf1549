#include "Fixtures.hpp"

#include <NotificationDatabase/NotificationDatabase.hpp>

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace notificationdb::bench {

namespace {

using namespace std::chrono_literals;

std::filesystem::path& workspaceSlot() {
    static std::filesystem::path path;
    return path;
}

const char* spreadName(Spread spread) {
    switch (spread) {
        case Spread::twentyCustomers:
            return "twenty-customers";
        case Spread::withinLimits:
            return "within-limits";
        case Spread::twoThousandToPrune:
            return "to-prune";
    }
    return "unknown";
}

// The customer of a row and whether it belongs to the old segment of `twoThousandToPrune`.
struct Placement {
    int customer;
    bool old;
};

Placement place(Spread spread, int rowCount, int index) {
    switch (spread) {
        case Spread::twentyCustomers:
            return {index % 20, false};
        case Spread::withinLimits:
            return {index % 100, false};
        case Spread::twoThousandToPrune: {
            const int overLimitStart = rowCount * 7 / 10;
            const int oldStart = rowCount * 9 / 10;
            if (index < overLimitStart) return {index % 70, false};
            if (index < oldStart) return {70 + index % 10, false};
            return {80 + index % 10, true};
        }
    }
    return {0, false};
}

void execute(sqlite3* db, const std::string& sql) {
    char* message = nullptr;
    const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message);
    if (rc != SQLITE_OK) {
        const std::string text = message != nullptr ? message : sqlite3_errstr(rc);
        sqlite3_free(message);
        throw std::runtime_error("maintenance SQL failed: " + text + " in " + sql);
    }
}

sqlite3* openConnection(const std::filesystem::path& path) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) != SQLITE_OK) {
        sqlite3_close_v2(db);
        throw std::runtime_error("cannot open " + path.string());
    }
    sqlite3_busy_timeout(db, 5000);
    execute(db, "PRAGMA foreign_keys = ON");
    return db;
}

void buildPreparedFile(const std::filesystem::path& path, Spread spread, int rowCount) {
    // The library creates the schema, so both sides run on exactly its tables.
    {
        Configuration configuration;
        configuration.busyMode = BusyMode::timeout(2.0);
        auto store = NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, configuration));
    }
    sqlite3* db = openConnection(path);
    try {
        const Timestamp now = std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
        execute(db, "BEGIN IMMEDIATE");
        RawStatement insertNotification;
        RawStatement insertButton;
        sqlite3_stmt* notificationStatement = insertNotification.get(db, sql::insertNotification);
        sqlite3_stmt* buttonStatement = insertButton.get(db, sql::insertButton);
        for (int index = 0; index < rowCount; ++index) {
            const RawInfo row = makeRow(spread, rowCount, index, now);
            bindNotification(notificationStatement, row.notification);
            run(db, notificationStatement);
            if (row.button) {
                bindButton(buttonStatement, *row.button, row.notification.id);
                run(db, buttonStatement);
            }
        }
        execute(db, "COMMIT");
    } catch (...) {
        sqlite3_close_v2(db);
        throw;
    }
    // The last connection to close folds the WAL into the file: the copy needs no other file.
    sqlite3_close_v2(db);
}

}  // namespace

RawInfo makeRow(Spread spread, int rowCount, int index, Timestamp now) {
    const Placement placement = place(spread, rowCount, index);
    const std::string number = std::to_string(index);
    RawInfo row;
    RawNotification& n = row.notification;
    n.id = index + 1;
    n.customerId = "customer-" + std::to_string(placement.customer);
    if (placement.old) {
        n.createdDate = now - 40 * 24h - std::chrono::minutes(index);
    } else {
        // Ids grow with dates, as they do when notifications arrive over time.
        const auto step = std::chrono::duration_cast<std::chrono::milliseconds>(7 * 24h) / std::max(rowCount, 1);
        n.createdDate = now - 8 * 24h + step * index;
    }
    n.version = "5." + std::to_string(index / 100) + "." + std::to_string(index % 100);
    n.analyticsTag = index % 10 == 0 ? "unusedApps" : "campaign-" + std::to_string(index % 13);
    n.title = "Notification title number " + number;
    if (index % 6 != 5) {
        n.body = "A short text that says what is new in the app and why it matters to the user, item " + number;
    }
    if (index % 3 != 0) n.bannerUrl = "https://cdn.example.com/banners/" + number + ".png";
    n.isMarketing = index % 4 == 0;
    if (index % 5 != 0) n.appId = 1'000'000 + index % 997;
    n.status = index % 3;
    n.notificationKind = index % 5;
    if (index % 2 == 0) {
        RawButton button;
        button.buttonId = "button-" + number;
        button.title = "Open";
        button.visible = true;
        button.notificationId = n.id;
        button.actionKind = index % 7;
        const std::string payload = "{\"target\":\"app\",\"id\":" + number + "}";
        button.userAction.emplace(payload.begin(), payload.end());
        row.button = std::move(button);
    }
    return row;
}

NotificationModelInfo toModelInfo(const RawInfo& info) {
    const RawNotification& n = info.notification;
    NotificationModel notification(n.id, n.customerId, n.createdDate, n.version, n.analyticsTag, n.title, n.body,
                                   n.bannerUrl, n.isMarketing, n.appId, static_cast<NotificationStatus>(n.status),
                                   static_cast<NotificationKind>(n.notificationKind));
    std::optional<NotificationButton> button;
    if (info.button) {
        const RawButton& b = *info.button;
        std::optional<UserActionKind> kind;
        if (b.actionKind) kind = static_cast<UserActionKind>(*b.actionKind);
        button.emplace(b.id, b.buttonId, b.title, b.visible, b.notificationId, kind, b.userAction);
    }
    return {std::move(notification), std::move(button)};
}

const std::filesystem::path& workspace() {
    std::filesystem::path& path = workspaceSlot();
    if (path.empty()) {
        // Memory-backed files when the machine has them, so that the disk's latency does not swamp
        // the work being compared; NOTIFICATIONDB_BENCH_DIR names another place.
        std::filesystem::path base = std::filesystem::temp_directory_path();
        std::error_code error;
        if (const char* chosen = std::getenv("NOTIFICATIONDB_BENCH_DIR"); chosen != nullptr && *chosen != '\0') {
            base = chosen;
        } else if (std::filesystem::is_directory("/dev/shm", error) && ::access("/dev/shm", W_OK) == 0) {
            base = "/dev/shm";
        }
        std::string pattern = (base / "notificationdb-bench.XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot create a temporary directory");
        path = pattern;
    }
    return path;
}

void removeWorkspace() {
    std::filesystem::path& path = workspaceSlot();
    if (path.empty()) return;
    std::error_code error;
    std::filesystem::remove_all(path, error);
    path.clear();
}

const std::filesystem::path& preparedFile(Spread spread, int rowCount) {
    static std::map<std::pair<Spread, int>, std::filesystem::path> files;
    const auto key = std::make_pair(spread, rowCount);
    if (auto found = files.find(key); found != files.end()) return found->second;
    const std::filesystem::path path =
        workspace() / ("prepared-" + std::string(spreadName(spread)) + "-" + std::to_string(rowCount) + ".sqlite");
    buildPreparedFile(path, spread, rowCount);
    return files.emplace(key, path).first->second;
}

std::vector<std::int64_t> rowsToPrune(int rowCount) {
    std::vector<std::int64_t> ids;
    std::map<int, std::vector<int>> byCustomer;
    for (int index = 0; index < rowCount; ++index) {
        const Placement placement = place(Spread::twoThousandToPrune, rowCount, index);
        if (placement.old) {
            ids.push_back(index + 1);
        } else {
            byCustomer[placement.customer].push_back(index);
        }
    }
    // Dates grow with the index: the first rows of a customer are its oldest.
    for (const auto& [customer, indexes] : byCustomer) {
        if (indexes.size() <= 100) continue;
        for (std::size_t i = 0; i < indexes.size() - 100; ++i) ids.push_back(indexes[i] + 1);
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

WorkingCopy::WorkingCopy(Spread spread, int rowCount) {
    static int counter = 0;
    const std::filesystem::path& source = preparedFile(spread, rowCount);
    path_ = workspace() / ("work-" + std::to_string(++counter) + ".sqlite");
    std::filesystem::copy_file(source, path_, std::filesystem::copy_options::overwrite_existing);
    // The copy goes to disk now rather than in the background while a case is being timed.
    const int descriptor = ::open(path_.c_str(), O_RDONLY);
    if (descriptor >= 0) {
        ::fsync(descriptor);
        ::close(descriptor);
    }
}

WorkingCopy::~WorkingCopy() {
    std::error_code error;
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
        std::filesystem::remove(path_.string() + suffix, error);
    }
}

Maintenance::Maintenance(const std::filesystem::path& path) : db_(openConnection(path)) {
    execute("ATTACH DATABASE ':memory:' AS snap");
}

Maintenance::~Maintenance() {
    sqlite3_close_v2(db_);
}

void Maintenance::execute(const std::string& sql) {
    bench::execute(db_, sql);
}

void Maintenance::snapshot(const std::string& condition) {
    execute(
        "DROP TABLE IF EXISTS snap.n; DROP TABLE IF EXISTS snap.b;"
        "CREATE TABLE snap.n AS SELECT * FROM main.\"notification\" WHERE " +
        condition +
        ";"
        "CREATE TABLE snap.b AS SELECT * FROM main.\"notificationButton\" "
        "WHERE \"notificationId\" IN (SELECT \"id\" FROM snap.n)");
}

void Maintenance::restore() {
    execute(
        "BEGIN IMMEDIATE;"
        "INSERT OR IGNORE INTO main.\"notification\" SELECT * FROM snap.n;"
        "INSERT OR IGNORE INTO main.\"notificationButton\" SELECT * FROM snap.b;"
        "COMMIT");
}

void Maintenance::deleteAbove(std::int64_t id) {
    // Foreign keys are on: the buttons go with their notifications.
    execute("DELETE FROM main.\"notification\" WHERE \"id\" > " + std::to_string(id));
}

std::int64_t Maintenance::count() {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_, "SELECT COUNT(*) FROM main.\"notification\"", -1, &statement, nullptr) != SQLITE_OK) {
        throw std::runtime_error(sqlite3_errmsg(db_));
    }
    std::int64_t result = -1;
    if (sqlite3_step(statement) == SQLITE_ROW) result = sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    return result;
}

std::string idList(const std::vector<std::int64_t>& ids) {
    std::string text = "[";
    for (const std::int64_t id : ids) {
        if (text.size() > 1) text += ',';
        text += std::to_string(id);
    }
    return text + "]";
}

}  // namespace notificationdb::bench
