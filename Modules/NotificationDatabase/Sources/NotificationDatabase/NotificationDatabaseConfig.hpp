#pragma once

#include <NotificationDatabase/Database/Configuration.hpp>
#include <NotificationDatabase/Export.hpp>
#include <NotificationDatabase/Platform/Logger.hpp>

#include <filesystem>
#include <memory>
#include <string_view>

namespace notificationdb {

// Where the notification database file lives and how the store's pool opens it. Building a
// value makes sure the directory that is to hold the file exists.
class NOTIFICATIONDB_API NotificationDatabaseConfig {
public:
    // How long the ready-made configurations wait for another connection's lock.
    static constexpr double busyTimeoutSeconds = 2.0;

    // Stores both values, then creates the file's directory (with its parents) unless something
    // already exists at `storageURL`. Never fails: a failure to create the directory is logged
    // as "Unable to create database directory: " plus the error, and the store opened later on
    // this value fails instead.
    NotificationDatabaseConfig(std::filesystem::path storageURL, Configuration configuration);

    // "NotificationDatabase.sqlite" in the storage directory, read-write, waiting up to 2.0 s
    // on a locked database. Built once per process, on first use.
    static const NotificationDatabaseConfig& default_();
    // The same file, read-only, waiting up to 2.0 s, reader connections kept open. Built once
    // per process, on first use.
    static const NotificationDatabaseConfig& readOnly();
    // The location of a database named `fileName`: the user's application support directory
    // followed by "Vantro", "Default", "Databases" and the name, unchecked.
    static std::filesystem::path createDatabaseURl(std::string_view fileName);
    // The sub-logger "notification-database-config" of `Logger::module()`.
    static const std::shared_ptr<Logger>& logger();

    const std::filesystem::path& storageURL() const noexcept { return storageURL_; }  // the database file
    const Configuration& configuration() const noexcept { return configuration_; }    // how it is opened

private:
    void initDatabaseFolderIfNeeded() const;

    std::filesystem::path storageURL_;
    Configuration configuration_;
};

}  // namespace notificationdb
