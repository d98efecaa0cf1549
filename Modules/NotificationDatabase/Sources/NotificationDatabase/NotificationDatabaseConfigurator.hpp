#pragma once

#include <NotificationDatabase/NotificationDatabaseConfig.hpp>

namespace notificationdb {

class Connection;
class DatabasePool;

// Gives a database its two tables, "notification" and "notificationButton" (with the index
// "notificationButton_on_notificationId"), each only when missing. Existing tables are never
// altered.
class NotificationDatabaseConfigurator {
public:
    explicit NotificationDatabaseConfigurator(NotificationDatabaseConfig config) : config_(std::move(config)) {}

    // Creates the missing tables in one write transaction. Throws `DatabaseError`; on failure
    // neither table is created by this run.
    void configure(DatabasePool& database) const;

    const NotificationDatabaseConfig& config() const noexcept { return config_; }

private:
    void initDatabaseSchemaIfNeeded(DatabasePool& database) const;
    static void createNotificationTableIfNeeded(Connection& database);
    static void createButtonInfoTableIfNeeded(Connection& database);

    NotificationDatabaseConfig config_;
};

}  // namespace notificationdb
