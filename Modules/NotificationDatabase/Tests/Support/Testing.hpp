#pragma once

// What the tests share: scratch directories, a store's test services, log capture, a plain sqlite3
// connection as another program opens the file, child processes. Free of GoogleTest, for the children.

#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include <sqlite3.h>

#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace notificationdb::testing {

using Rows = std::vector<std::vector<std::string>>;

// The stored forms, from the file's format: each case is stored as its position in its list.
inline constexpr NotificationStatus storedStatuses[] = {NotificationStatus::new_, NotificationStatus::shown,
                                                        NotificationStatus::read};
inline constexpr NotificationKind storedKinds[] = {NotificationKind::default_, NotificationKind::newApp,
                                                   NotificationKind::appUpdate, NotificationKind::vantroUpdate,
                                                   NotificationKind::ai};
inline constexpr UserActionKind storedActions[] = {UserActionKind::openCabinet,         UserActionKind::openApp,
                                                   UserActionKind::openCollection,      UserActionKind::openLink,
                                                   UserActionKind::openBlogArticle,     UserActionKind::openVantro,
                                                   UserActionKind::refreshInstalledApps};

// A notification of status new_ with these values and no optional ones.
inline NotificationModel notification(std::optional<std::int64_t> id, std::optional<std::string> customer = "c",
                                      NotificationKind kind = NotificationKind::default_, std::string version = "1",
                                      Timestamp date = {}) {
    return {id,           customer, date,         std::move(version),       "tag", std::nullopt, std::nullopt,
            std::nullopt, false,    std::nullopt, NotificationStatus::new_, kind};
}

// Bytes as SQL writes them: x'00FF'.
inline std::string blobLiteral(const unsigned char* bytes, std::size_t size) {
    std::string text = "x'";
    for (std::size_t b = 0; b < size; ++b)
        text += {"0123456789ABCDEF"[bytes[b] >> 4], "0123456789ABCDEF"[bytes[b] & 15]};
    return text + "'";
}

// A fresh directory below the system's temporary directory, removed with its contents.
class TemporaryDirectory {
public:
    TemporaryDirectory() : path_((std::filesystem::temp_directory_path() / "ndb-test-XXXXXX").string()) {
        if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("cannot create a temporary directory");
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::filesystem::path operator/(const std::string& name) const { return std::filesystem::path(path_) / name; }

private:
    std::string path_;
};

inline std::vector<CapturingLogDestination::Entry> takeEntries(CapturingLogDestination& destination) {
    auto entries = destination.entries();
    return destination.clear(), entries;
}

// Keeps what `Logger::module()` logs (the platform services, the configuration) while it lives.
class LogCapture {
public:
    LogCapture() : previous_(Logger::module()->destinations()) { Logger::module()->setDestinations({sink_}); }
    ~LogCapture() { Logger::module()->setDestinations(previous_); }
    // The entries so far, and then none.
    std::vector<CapturingLogDestination::Entry> take() { return takeEntries(*sink_); }

private:
    std::shared_ptr<CapturingLogDestination> sink_ = std::make_shared<CapturingLogDestination>();
    Logger::Destinations previous_;
};

// A notice center that counts its posts and keeps its observers. While `hang` is set a post waits
// for `release`; after a post it runs `whenPosting`.
struct TestCenter final : DistributedNotificationCenter {
    void post(const std::string& /*name*/) override {
        std::unique_lock lock(mutex);
        ++posts;
        changed.notify_all();
        changed.wait(lock, [this] { return !hang; });
        if (whenPosting) whenPosting();
    }
    std::unique_ptr<ObserverToken> addObserver(const std::string& name, Handler handler) override {
        observed.emplace_back(name, std::move(handler));
        return std::make_unique<ObserverToken>();
    }
    void release() {
        std::lock_guard lock(mutex);
        hang = false;
        changed.notify_all();
    }
    std::mutex mutex;
    std::condition_variable changed;
    bool hang = false;
    int posts = 0;
    std::function<void()> whenPosting;
    std::vector<std::pair<std::string, Handler>> observed;
};

// A store's services: a logger "root" that keeps its messages, a main queue that keeps its jobs and
// runs none, and a `TestCenter`.
class TestServices {
public:
    NotificationDatabaseServices services() {
        return {root_,
                [this](MainQueue::Clock::time_point deadline, MainQueue::Job job) {
                    std::lock_guard lock(mutex_);
                    scheduled_.emplace_back(deadline, std::move(job));
                    if (whenScheduled) whenScheduled();
                },
                center};
    }
    std::vector<std::string> messages() const { return log_->messages(); }
    // The entries logged so far, and then none.
    std::vector<CapturingLogDestination::Entry> takeLog() { return takeEntries(*log_); }
    // The jobs scheduled so far with their deadlines, and then none.
    std::vector<std::pair<MainQueue::Clock::time_point, MainQueue::Job>> takeJobs() {
        std::lock_guard lock(mutex_);
        return std::exchange(scheduled_, {});
    }

    // Called as each job is scheduled, on the thread that commits, as a host's scheduler may.
    std::function<void()> whenScheduled;
    const std::shared_ptr<TestCenter> center = std::make_shared<TestCenter>();

private:
    std::shared_ptr<CapturingLogDestination> log_ = std::make_shared<CapturingLogDestination>();
    std::shared_ptr<Logger> root_ = std::make_shared<Logger>("root", nullptr, Logger::Destinations{log_}, false);
    std::mutex mutex_;
    std::vector<std::pair<MainQueue::Clock::time_point, MainQueue::Job>> scheduled_;
};

// A plain sqlite3 connection, as another program on the machine would open the file.
class RawDatabase {
public:
    explicit RawDatabase(const std::filesystem::path& path) {
        if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) throw std::runtime_error(sqlite3_errmsg(db_));
        sqlite3_busy_timeout(db_, 5000);
    }
    ~RawDatabase() { sqlite3_close_v2(db_); }

    // Every row of `sql`, one text per column: "NULL", x'..' for bytes, else the value as text.
    Rows query(const std::string& sql) const {
        sqlite3_stmt* statement = nullptr;
        Rows rows;
        int rc = sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr);
        for (rc = rc == SQLITE_OK ? sqlite3_step(statement) : rc; rc == SQLITE_ROW; rc = sqlite3_step(statement)) {
            auto& row = rows.emplace_back();
            for (int i = 0; i < sqlite3_column_count(statement); ++i) {
                const int type = sqlite3_column_type(statement, i);
                const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, i));
                const auto size = std::size_t(sqlite3_column_bytes(statement, i));
                row.push_back(
                    type == SQLITE_NULL ? "NULL"
                    : type == SQLITE_BLOB
                        ? blobLiteral(static_cast<const unsigned char*>(sqlite3_column_blob(statement, i)), size)
                        : std::string(text, size));
            }
        }
        sqlite3_finalize(statement);
        if (rc != SQLITE_DONE) throw std::runtime_error(std::string(sqlite3_errmsg(db_)) + " in: " + sql);
        return rows;
    }
    // Runs any number of statements, ignoring their rows.
    void execute(const std::string& sql) const {
        char* error = nullptr;
        if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error) == SQLITE_OK) return;
        const std::string text = error != nullptr ? error : "";
        sqlite3_free(error);
        throw std::runtime_error(text + " in: " + sql);
    }

private:
    sqlite3* db_ = nullptr;
};

// A child started by the shell, its output on a pipe; killed when it goes unless waited for.
class ChildProcess {
public:
    // The shell says its process id, which the command then takes over.
    explicit ChildProcess(const std::string& command)
        : output_(::popen(("echo $$; exec " + command).c_str(), "r")), pid_(std::stoi(readLine().value_or("-1"))) {}
    ~ChildProcess() {
        if (output_ != nullptr) kill(SIGKILL), wait();
    }
    // The next line of output without its line feed; nullopt at the end.
    std::optional<std::string> readLine() {
        char line[4096];
        if (output_ == nullptr || std::fgets(line, sizeof line, output_) == nullptr) return std::nullopt;
        const std::string text(line);
        return text.ends_with('\n') ? text.substr(0, text.size() - 1) : text;
    }
    void kill(int signal = SIGKILL) const {
        if (pid_ > 0) ::kill(pid_, signal);
    }
    // The exit status, 128 + the signal for a killed child; what it still writes is read and dropped.
    int wait() {
        while (readLine()) continue;
        const int status = ::pclose(std::exchange(output_, nullptr));
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    FILE* output_;
    pid_t pid_;
};

inline long environmentNumber(const char* name, long fallback) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? std::stol(value) : fallback;
}

}  // namespace notificationdb::testing
