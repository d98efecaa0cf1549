// A piece of a host built as a shared library, with the notification store linked in
// statically.

#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/Platform/LogSanitizer.hpp>

#include <iostream>
#include <string>

__attribute__((visibility("default"))) long long hostNotificationCount(const std::string& file) {
    using namespace notificationdb;
    try {
        auto store = NotificationDatabaseImpl::create(NotificationDatabaseConfig(file, Configuration()));
        return store->notificationsCount();
    } catch (const std::exception& error) {
        std::cerr << "cannot open " << file << ": " << LogSanitizer::sanitizeError(error) << '\n';
        return -1;
    }
}
