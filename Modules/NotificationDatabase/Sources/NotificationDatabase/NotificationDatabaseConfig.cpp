#include "NotificationDatabase/NotificationDatabaseConfig.hpp"

#include "NotificationDatabase/Platform/FileManager.hpp"
#include "NotificationDatabase/Platform/LogSanitizer.hpp"

#include <filesystem>
#include <utility>

namespace notificationdb {

namespace {

constexpr std::string_view databaseFileName = "NotificationDatabase.sqlite";

}  // namespace

NotificationDatabaseConfig::NotificationDatabaseConfig(std::filesystem::path storageURL, Configuration configuration)
    : storageURL_(std::move(storageURL)), configuration_(std::move(configuration)) {
    initDatabaseFolderIfNeeded();
}

const NotificationDatabaseConfig& NotificationDatabaseConfig::default_() {
    static const NotificationDatabaseConfig config = [] {
        Configuration configuration;
        configuration.busyMode = BusyMode::timeout(busyTimeoutSeconds);
        return NotificationDatabaseConfig(createDatabaseURl(databaseFileName), std::move(configuration));
    }();
    return config;
}

const NotificationDatabaseConfig& NotificationDatabaseConfig::readOnly() {
    static const NotificationDatabaseConfig config = [] {
        Configuration configuration;
        configuration.readOnly = true;
        configuration.busyMode = BusyMode::timeout(busyTimeoutSeconds);
        configuration.persistentReadOnlyConnections = true;
        return NotificationDatabaseConfig(createDatabaseURl(databaseFileName), std::move(configuration));
    }();
    return config;
}

std::filesystem::path NotificationDatabaseConfig::createDatabaseURl(std::string_view fileName) {
    std::filesystem::path url =
        FileManager::defaultManager()->applicationSupportDirectory() / "Vantro" / "Default" / "Databases" / "";
    // Appended as text: `/` would replace the whole path with an absolute name.
    url += fileName;
    return url;
}

const std::shared_ptr<Logger>& NotificationDatabaseConfig::logger() {
    static const std::shared_ptr<Logger> logger = Logger::module()->subLogger("notification-database-config", {}, true);
    return logger;
}

void NotificationDatabaseConfig::initDatabaseFolderIfNeeded() const {
    const auto fileManager = FileManager::defaultManager();
    if (fileManager->fileExists(storageURL_)) return;
    const std::filesystem::path directory = storageURL_.parent_path();
    // A bare file name lies in the current directory, which exists.
    if (directory.empty()) return;
    if (const std::error_code error = fileManager->createDirectory(directory, true)) {
        const std::filesystem::filesystem_error failure("cannot create directory", directory, error);
        logger()->log(LogLevel::error, "Unable to create database directory: " + LogSanitizer::sanitizeError(failure));
    }
}

}  // namespace notificationdb
