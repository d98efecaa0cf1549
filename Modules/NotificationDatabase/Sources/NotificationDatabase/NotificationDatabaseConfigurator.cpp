#include "NotificationDatabase/NotificationDatabaseConfigurator.hpp"

#include "NotificationDatabase/Database/DatabasePool.hpp"

namespace notificationdb {

void NotificationDatabaseConfigurator::configure(DatabasePool& database) const {
    initDatabaseSchemaIfNeeded(database);
}

void NotificationDatabaseConfigurator::initDatabaseSchemaIfNeeded(DatabasePool& database) const {
    // Nearly every open finds both tables. Looking for them in a deferred transaction takes no
    // write lock, so a store opens beside another process's long write, and a read-only store
    // opens at all. Only a missing table takes the lock, and then both are looked for again.
    const bool complete = database.write(
        [](Connection& connection) {
            return connection.tableExists("notification") && connection.tableExists("notificationButton");
        },
        DatabasePool::Begin::deferred);
    if (complete) return;
    database.write([](Connection& connection) {
        createNotificationTableIfNeeded(connection);
        createButtonInfoTableIfNeeded(connection);
    });
}

void NotificationDatabaseConfigurator::createNotificationTableIfNeeded(Connection& database) {
    if (database.tableExists("notification")) return;
    database.execute(
        "CREATE TABLE \"notification\" ("
        "\"id\" INTEGER PRIMARY KEY AUTOINCREMENT, "
        "\"customerId\" TEXT, "
        "\"createdDate\" DATETIME NOT NULL, "
        "\"version\" TEXT NOT NULL, "
        "\"analyticsTag\" TEXT NOT NULL, "
        "\"title\" TEXT, "
        "\"body\" TEXT, "
        "\"bannerUrl\" TEXT, "
        "\"isMarketing\" BOOLEAN NOT NULL, "
        "\"appId\" INTEGER, "
        "\"status\" INTEGER NOT NULL, "
        "\"notificationKind\" INTEGER NOT NULL)");
}

void NotificationDatabaseConfigurator::createButtonInfoTableIfNeeded(Connection& database) {
    if (database.tableExists("notificationButton")) return;
    database.execute(
        "CREATE TABLE \"notificationButton\" ("
        "\"id\" INTEGER PRIMARY KEY AUTOINCREMENT, "
        "\"buttonId\" TEXT, "
        "\"title\" TEXT, "
        "\"visible\" BOOLEAN NOT NULL, "
        "\"notificationId\" INTEGER REFERENCES \"notification\"(\"id\") ON DELETE CASCADE, "
        "\"actionKind\" INTEGER, "
        "\"userAction\" BLOB)");
    database.execute(
        "CREATE INDEX \"notificationButton_on_notificationId\" ON \"notificationButton\"(\"notificationId\")");
}

}  // namespace notificationdb
