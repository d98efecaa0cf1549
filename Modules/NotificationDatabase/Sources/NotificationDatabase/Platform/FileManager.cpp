#include "NotificationDatabase/Platform/FileManager.hpp"

#include "NotificationDatabase/Platform/ProcessWide.hpp"

#include <cstdlib>
#include <utility>
#include <vector>

#include <pwd.h>
#include <unistd.h>

namespace notificationdb {

namespace {

// The user's home directory: `$HOME` when set, else the password database's entry. Empty when
// neither is known.
std::filesystem::path homeDirectory() {
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') return home;

    long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : 16384);
    passwd entry{};
    passwd* result = nullptr;
    if (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &result) == 0 && result != nullptr &&
        result->pw_dir != nullptr) {
        return result->pw_dir;
    }
    return {};
}

using DefaultManager = detail::ReplaceableDefault<FileManager, [] { return std::make_shared<SystemFileManager>(); }>;

}  // namespace

std::shared_ptr<FileManager> FileManager::defaultManager() {
    return DefaultManager::get();
}

void FileManager::setDefaultManager(std::shared_ptr<FileManager> manager) {
    DefaultManager::set(std::move(manager));
}

std::filesystem::path SystemFileManager::applicationSupportDirectory() const {
#ifdef __APPLE__
    return homeDirectory() / "Library" / "Application Support";
#else
    // A relative XDG_DATA_HOME is invalid and must be ignored.
    if (const char* dataHome = std::getenv("XDG_DATA_HOME"); dataHome != nullptr && *dataHome != '\0') {
        std::filesystem::path path(dataHome);
        if (path.is_absolute()) return path;
    }
    return homeDirectory() / ".local" / "share";
#endif
}

bool SystemFileManager::fileExists(const std::filesystem::path& path) const {
    // symlink_status: a dangling link is still something that exists at `path`.
    std::error_code error;
    auto status = std::filesystem::symlink_status(path, error);
    return std::filesystem::exists(status);
}

std::error_code SystemFileManager::createDirectory(const std::filesystem::path& path,
                                                   bool withIntermediateDirectories) const {
    std::error_code error;
    if (withIntermediateDirectories) {
        std::filesystem::create_directories(path, error);
    } else {
        bool created = std::filesystem::create_directory(path, error);
        if (!error && !created) return std::make_error_code(std::errc::file_exists);
    }
    if (error) return error;

    // create_directories reports success for some existing paths that are not directories, so
    // only a directory at `path` counts as done.
    std::error_code statusError;
    auto status = std::filesystem::status(path, statusError);
    if (std::filesystem::is_directory(status)) {
        return {};
    }
    if (std::filesystem::exists(status)) return std::make_error_code(std::errc::file_exists);
    if (statusError) return statusError;
    return std::make_error_code(std::errc::not_a_directory);
}

}  // namespace notificationdb
