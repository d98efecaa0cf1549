#pragma once

#include <NotificationDatabase/Export.hpp>

#include <filesystem>
#include <memory>
#include <system_error>

namespace notificationdb {

// The file-system services the library needs. Replaceable, so a host or a test can redirect or
// observe them (see `setDefaultManager`).
class NOTIFICATIONDB_API FileManager {
public:
    virtual ~FileManager() = default;

    // The process-wide manager; a `SystemFileManager` unless replaced.
    static std::shared_ptr<FileManager> defaultManager();
    // Replaces the process-wide manager; `nullptr` restores the system one.
    static void setDefaultManager(std::shared_ptr<FileManager> manager);

    // The user's application support directory: `$XDG_DATA_HOME` when set and absolute, else
    // `$HOME/.local/share` (on macOS `$HOME/Library/Application Support`). Not created here.
    virtual std::filesystem::path applicationSupportDirectory() const = 0;
    // Whether anything (file, directory, other) exists at `path`.
    virtual bool fileExists(const std::filesystem::path& path) const = 0;
    // Creates the directory; with intermediate directories on, missing parents are created and
    // an existing directory counts as success. Returns the failure, or an empty error code.
    virtual std::error_code createDirectory(const std::filesystem::path& path,
                                            bool withIntermediateDirectories) const = 0;
};

// The real file system.
class NOTIFICATIONDB_API SystemFileManager final : public FileManager {
public:
    std::filesystem::path applicationSupportDirectory() const override;
    bool fileExists(const std::filesystem::path& path) const override;
    std::error_code createDirectory(const std::filesystem::path& path, bool withIntermediateDirectories) const override;
};

}  // namespace notificationdb
