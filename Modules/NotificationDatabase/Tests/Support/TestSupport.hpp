#pragma once

// Helpers shared by the tests: temporary directories, environment overrides, log capture and
// child processes. Header-only so that child programs can use it too.

#include <NotificationDatabase/Platform/Logger.hpp>

#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace notificationdb::testing {

// A fresh directory below the system's temporary directory, removed with everything in it.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::random_device random;
        auto base = std::filesystem::temp_directory_path();
        for (int attempt = 0; attempt < 100; ++attempt) {
            auto candidate = base / ("ndb-test-" + std::to_string(random()));
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
        if (value) {
            ::setenv(name_.c_str(), value->c_str(), 1);
        } else {
            ::unsetenv(name_.c_str());
        }
    }
    ~ScopedEnvironment() {
        if (old_) {
            ::setenv(name_.c_str(), old_->c_str(), 1);
        } else {
            ::unsetenv(name_.c_str());
        }
    }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
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

    sqlite3* handle() const { return db_; }

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
    std::vector<std::vector<std::string>> query(const std::string& sql) const {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
            throw std::runtime_error(std::string(sqlite3_errmsg(db_)) + " in: " + sql);
        }
        std::vector<std::vector<std::string>> rows;
        int rc;
        while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
            std::vector<std::string> row;
            for (int i = 0; i < sqlite3_column_count(statement); ++i) {
                switch (sqlite3_column_type(statement, i)) {
                    case SQLITE_NULL:
                        row.emplace_back("NULL");
                        break;
                    case SQLITE_BLOB: {
                        static const char* digits = "0123456789ABCDEF";
                        auto bytes = static_cast<const unsigned char*>(sqlite3_column_blob(statement, i));
                        std::string text = "x'";
                        for (int b = 0; b < sqlite3_column_bytes(statement, i); ++b) {
                            text += digits[bytes[b] >> 4];
                            text += digits[bytes[b] & 15];
                        }
                        row.push_back(text + "'");
                        break;
                    }
                    default:
                        row.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(statement, i)),
                                         static_cast<std::size_t>(sqlite3_column_bytes(statement, i)));
                }
            }
            rows.push_back(std::move(row));
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
    ChildProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                 bool captureOutput = true) {
        int pipeFds[2] = {-1, -1};
        if (captureOutput && ::pipe(pipeFds) != 0) throw std::runtime_error("pipe failed");
        pid_ = ::fork();
        if (pid_ < 0) throw std::runtime_error("fork failed");
        if (pid_ == 0) {
            if (captureOutput) {
                ::dup2(pipeFds[1], STDOUT_FILENO);
                ::close(pipeFds[0]);
                ::close(pipeFds[1]);
            }
            std::vector<char*> argv;
            std::string programText = program.string();
            argv.push_back(programText.data());
            std::vector<std::string> copies = arguments;
            for (auto& argument : copies) argv.push_back(argument.data());
            argv.push_back(nullptr);
            ::execv(programText.c_str(), argv.data());
            ::_exit(127);
        }
        if (captureOutput) {
            ::close(pipeFds[1]);
            output_ = ::fdopen(pipeFds[0], "r");
        }
    }
    ~ChildProcess() {
        if (pid_ > 0 && !reaped_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        if (output_) ::fclose(output_);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }

    // The next line of the child's standard output without its line feed; nullopt at the end.
    std::optional<std::string> readLine() {
        if (!output_) return std::nullopt;
        char* line = nullptr;
        std::size_t capacity = 0;
        ssize_t length = ::getline(&line, &capacity, output_);
        if (length < 0) {
            std::free(line);
            return std::nullopt;
        }
        std::string text(line, static_cast<std::size_t>(length));
        std::free(line);
        if (!text.empty() && text.back() == '\n') text.pop_back();
        return text;
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

}  // namespace notificationdb::testing
