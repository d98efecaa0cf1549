#pragma once

// Helpers shared by the tests and their child programs: temporary directories, environment
// overrides, log capture, plain SQLite access, child processes, records and stores on disk.
// Header-only and free of GoogleTest, so that child programs can use it too.

#include <NotificationDatabase/NotificationModel/DateText.hpp>
#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/NotificationDatabaseConfig.hpp>
#include <NotificationDatabase/Platform/Logger.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include <sqlite3.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace notificationdb::testing {

using Rows = std::vector<std::vector<std::string>>;

// A fresh directory below the system's temporary directory, removed with everything in it.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::random_device random;
        for (int attempt = 0; attempt < 100; ++attempt) {
            auto candidate = std::filesystem::temp_directory_path() / ("ndb-test-" + std::to_string(random()));
            if (std::filesystem::create_directory(candidate)) {
                path_ = candidate;
                return;
            }
        }
        throw std::runtime_error("cannot create a temporary directory");
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all, std::filesystem::perm_options::add,
                                     ignored);
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

// Sets (or, with nullopt, unsets) an environment variable for the lifetime of the object.
class ScopedEnvironment {
public:
    ScopedEnvironment(std::string name, const std::optional<std::string>& value) : name_(std::move(name)) {
        if (const char* old = std::getenv(name_.c_str())) old_ = old;
        set(value);
    }
    ~ScopedEnvironment() { set(old_); }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    void set(const std::optional<std::string>& value) const {
        if (value) {
            ::setenv(name_.c_str(), value->c_str(), 1);
        } else {
            ::unsetenv(name_.c_str());
        }
    }
    std::string name_;
    std::optional<std::string> old_;
};

// Redirects the root logger to a capturing destination for the lifetime of the object.
class LogCapture {
public:
    LogCapture()
        : destination_(std::make_shared<CapturingLogDestination>()), previous_(Logger::module()->destinations()) {
        Logger::module()->setDestinations({destination_});
    }
    ~LogCapture() { Logger::module()->setDestinations(previous_); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<CapturingLogDestination::Entry> entries() const { return destination_->entries(); }
    std::vector<std::string> messages() const { return destination_->messages(); }
    void clear() { destination_->clear(); }

private:
    std::shared_ptr<CapturingLogDestination> destination_;
    Logger::Destinations previous_;
};

// Counts the change notices that stores schedule on the main queue and drops them, so that no
// other test hears them; restores the main queue's own scheduling when it goes.
class CountingNotices {
public:
    CountingNotices() {
        MainQueue::main().setScheduler([this](auto, auto) { count_.fetch_add(1, std::memory_order_relaxed); });
    }
    ~CountingNotices() { MainQueue::main().setScheduler({}); }
    CountingNotices(const CountingNotices&) = delete;
    CountingNotices& operator=(const CountingNotices&) = delete;

    int count() const { return count_.load(); }
    void reset() { count_ = 0; }

private:
    std::atomic<int> count_{0};
};

// A plain sqlite3 connection, as another program on the machine would open the file.
class RawDatabase {
public:
    explicit RawDatabase(const std::filesystem::path& path, int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) {
        if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
            std::string message = sqlite3_errmsg(db_);
            sqlite3_close(db_);
            throw std::runtime_error("cannot open " + path.string() + ": " + message);
        }
        sqlite3_busy_timeout(db_, 5000);
    }
    ~RawDatabase() { sqlite3_close_v2(db_); }
    RawDatabase(const RawDatabase&) = delete;
    RawDatabase& operator=(const RawDatabase&) = delete;

    // Runs SQL without results; throws with SQLite's message on failure.
    void execute(const std::string& sql) const {
        char* error = nullptr;
        if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
            std::string message = error ? error : "unknown error";
            sqlite3_free(error);
            throw std::runtime_error(message + " in: " + sql);
        }
    }

    // Every row of a query, each column rendered as text ("NULL" for NULL, "x'..'" for blobs).
    Rows query(const std::string& sql) const {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
            throw std::runtime_error(std::string(sqlite3_errmsg(db_)) + " in: " + sql);
        }
        Rows rows;
        int rc;
        while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
            auto& row = rows.emplace_back();
            for (int i = 0; i < sqlite3_column_count(statement); ++i) {
                const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, i));
                if (sqlite3_column_type(statement, i) == SQLITE_NULL) {
                    row.emplace_back("NULL");
                } else if (sqlite3_column_type(statement, i) == SQLITE_BLOB) {
                    auto bytes = static_cast<const unsigned char*>(sqlite3_column_blob(statement, i));
                    static constexpr char digits[] = "0123456789ABCDEF";
                    std::string text = "x'";
                    for (std::size_t b = 0; b < size; ++b) text += {digits[bytes[b] >> 4], digits[bytes[b] & 15]};
                    row.push_back(text + "'");
                } else {
                    row.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(statement, i)), size);
                }
            }
        }
        sqlite3_finalize(statement);
        if (rc != SQLITE_DONE) throw std::runtime_error(std::string(sqlite3_errmsg(db_)) + " in: " + sql);
        return rows;
    }

    // The first column of the first row as text; throws when there is no row.
    std::string scalar(const std::string& sql) const {
        auto rows = query(sql);
        if (rows.empty() || rows.front().empty()) throw std::runtime_error("no result for: " + sql);
        return rows.front().front();
    }

private:
    sqlite3* db_ = nullptr;
};

// Path of a child program built next to the test binary (Children/<name>.cpp).
inline std::filesystem::path childProgram(const std::string& name) {
#ifdef NDB_CHILD_DIR
    return std::filesystem::path(NDB_CHILD_DIR) / ("ndb_child_" + name);
#else
    return "ndb_child_" + name;
#endif
}

// A child process started with arguments; its standard output can be read line by line.
class ChildProcess {
public:
    ChildProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments) {
        int pipeFds[2] = {-1, -1};
        if (::pipe(pipeFds) != 0) throw std::runtime_error("pipe failed");
        pid_ = ::fork();
        if (pid_ < 0) throw std::runtime_error("fork failed");
        if (pid_ == 0) {
            ::dup2(pipeFds[1], STDOUT_FILENO);
            ::close(pipeFds[0]);
            ::close(pipeFds[1]);
            std::string programText = program.string();
            std::vector<std::string> copies = arguments;
            std::vector<char*> argv{programText.data()};
            for (auto& argument : copies) argv.push_back(argument.data());
            argv.push_back(nullptr);
            ::execv(programText.c_str(), argv.data());
            ::_exit(127);
        }
        ::close(pipeFds[1]);
        output_ = ::fdopen(pipeFds[0], "r");
    }
    ~ChildProcess() {
        if (pid_ > 0 && !reaped_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        ::fclose(output_);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The next line of the child's standard output without its line feed; nullopt at the end.
    std::optional<std::string> readLine() {
        char* line = nullptr;
        std::size_t capacity = 0;
        ssize_t length = ::getline(&line, &capacity, output_);
        std::optional<std::string> text;
        if (length >= 0) text.emplace(line, static_cast<std::size_t>(length));
        std::free(line);
        if (text && !text->empty() && text->back() == '\n') text->pop_back();
        return text;
    }
    // Every line still to come, up to the end of the output.
    std::vector<std::string> readAll() {
        std::vector<std::string> lines;
        while (auto line = readLine()) lines.push_back(*line);
        return lines;
    }

    // Waits for the child and returns its exit status (128 + signal when killed by a signal).
    int wait() {
        int status = 0;
        ::waitpid(pid_, &status, 0);
        reaped_ = true;
        if (WIFEXITED(status)) return WEXITSTATUS(status);
        if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
        return -1;
    }

    void kill(int signal = SIGKILL) { ::kill(pid_, signal); }

private:
    pid_t pid_ = -1;
    bool reaped_ = false;
    FILE* output_ = nullptr;
};

// The exception of type `Error` that `work` throws, or nullopt when it returns normally.
// Exceptions of other types propagate (and fail the test).
template <class Error, class Work>
std::optional<Error> caught(Work&& work) {
    try {
        work();
    } catch (const Error& error) {
        return error;
    }
    return std::nullopt;
}

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

inline void writeFile(const std::filesystem::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

inline bool haveSessionBus() {
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    return address != nullptr && *address != '\0';
}

// The program `name` as the shell would find it on PATH.
inline std::optional<std::filesystem::path> findProgram(const std::string& name) {
    std::stringstream directories(std::getenv("PATH") != nullptr ? std::getenv("PATH") : "/usr/bin:/bin");
    std::string directory;
    while (std::getline(directories, directory, ':')) {
        auto candidate = std::filesystem::path(directory) / name;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return std::nullopt;
}

// The instant of a date text that must be valid.
inline Timestamp at(std::string_view text) {
    return parseDateText(text).value();
}

// A writer waits up to 2 s on another's lock; a reader also opens read-only and keeps its
// connections, as the ready-made read-only configuration does.
inline Configuration writerConfiguration(BusyMode busyMode = BusyMode::timeout(2.0)) {
    Configuration configuration;
    configuration.busyMode = std::move(busyMode);
    return configuration;
}

inline Configuration readerConfiguration() {
    Configuration configuration = writerConfiguration();
    configuration.readOnly = true;
    configuration.persistentReadOnlyConnections = true;
    return configuration;
}

// The fields of a notification that tests vary; the others are fixed.
struct Note {
    std::optional<std::int64_t> id = std::nullopt;
    std::optional<std::string> customer = "customer";
    std::string version = "1.0";
    NotificationKind kind = NotificationKind::default_;
    std::optional<std::int64_t> appId = std::nullopt;
    Timestamp created = at("2024-03-05");
    std::optional<std::string> title = "title";
    NotificationStatus status = NotificationStatus::new_;
};

inline NotificationModel note(Note fields = {}) {
    return NotificationModel(fields.id, std::move(fields.customer), fields.created, std::move(fields.version), "tag",
                             std::move(fields.title), "body", std::nullopt, false, fields.appId, fields.status,
                             fields.kind);
}

inline NotificationButton button(std::optional<std::int64_t> id = std::nullopt,
                                 std::optional<std::string> buttonId = "button") {
    return {id, std::move(buttonId), "Open", true, std::nullopt, UserActionKind::openApp, Bytes{1, 2}};
}

// Every field of a record but its id, to compare records by content.
template <class Record>
RecordValues<Record> fieldsOf(const Record& record) {
    auto values = encodeRecord(record);
    values[0] = std::monostate{};
    return values;
}

// A store on a fresh file that does not wait for locks, with its notices counted and dropped,
// its log captured, and a plain connection to the same file.
struct StoreOnDisk {
    CountingNotices notices;
    TemporaryDirectory directory;
    LogCapture log;
    std::filesystem::path file = directory / "NotificationDatabase.sqlite";
    std::shared_ptr<NotificationDatabaseImpl> store =
        NotificationDatabaseImpl::create(NotificationDatabaseConfig(file, Configuration{}));
    RawDatabase raw{file};
};

}  // namespace notificationdb::testing
