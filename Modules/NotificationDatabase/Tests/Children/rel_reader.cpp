// A read-only process that keeps reading a database file that writer processes fill
// (see rel_writer for the shape of what they save).
//
//   ndb_child_rel_reader <database> <stop file>
//
// Opens a store with the read-only configuration (read-only, waiting up to 2.0 s, reader
// connections kept open), prints "ready", then alternates the count and the full list until
// <stop file> exists, and reads once more after that. Every read is checked: a button belongs
// to the notification it comes with (its notificationId and its buttonId), a notification that
// was saved with a button comes with it, and the count never goes backwards. Each broken rule
// prints "violation <what>" (at most 20 lines). Once stopped it prints "reads <n>",
// "final <count>", one "failure <logger>: <message>" per message logged at error level, and
// "done". A store that cannot be opened prints "open-failed <error>" and exits with 3.

#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/NotificationDatabaseConfig.hpp>
#include <NotificationDatabase/Platform/Logger.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>

namespace {

using namespace notificationdb;

int violations = 0;

void violation(const std::string& what) {
    if (++violations <= 20) std::cout << "violation " << what << std::endl;
}

// The j of a title "w<w>-<j>", or -1 for a title of another shape.
int indexInTitle(const std::optional<std::string>& title) {
    if (!title || title->empty() || title->front() != 'w') return -1;
    const auto dash = title->find('-');
    if (dash == std::string::npos) return -1;
    return std::atoi(title->c_str() + dash + 1);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::cerr << "usage: ndb_child_rel_reader <database> <stop file>\n";
        return 2;
    }
    const std::filesystem::path database = argv[1];
    const std::filesystem::path stopFile = argv[2];

    auto capture = std::make_shared<CapturingLogDestination>();
    Logger::module()->setDestinations({capture});
    MainQueue::main().setScheduler([](auto, auto) {});

    Configuration configuration;
    configuration.readOnly = true;
    configuration.busyMode = BusyMode::timeout(2.0);
    configuration.persistentReadOnlyConnections = true;
    std::shared_ptr<NotificationDatabaseImpl> store;
    try {
        store = NotificationDatabaseImpl::create(NotificationDatabaseConfig(database, configuration));
    } catch (const std::exception& error) {
        std::cout << "open-failed " << error.what() << std::endl;
        return 3;
    }
    std::cout << "ready" << std::endl;

    std::int64_t seen = 0;
    long reads = 0;
    bool last = false;
    while (!last) {
        last = std::filesystem::exists(stopFile);
        const std::int64_t count = store->notificationsCount();
        if (count < seen) violation("count went from " + std::to_string(seen) + " to " + std::to_string(count));
        seen = std::max(seen, count);
        const auto list = store->fetchNotifications(std::nullopt);
        if (static_cast<std::int64_t>(list.size()) < seen) {
            violation("list of " + std::to_string(list.size()) + " after a count of " + std::to_string(seen));
        }
        seen = std::max(seen, static_cast<std::int64_t>(list.size()));
        for (const auto& info : list) {
            const auto& notification = info.notification;
            if (!notification.id()) violation("notification without id");
            if (info.actionButton) {
                if (info.actionButton->notificationId != notification.id()) {
                    violation("button of another notification with " + notification.title.value_or("?"));
                }
                if (info.actionButton->buttonId != notification.title) {
                    violation("button " + info.actionButton->buttonId.value_or("?") + " with " +
                              notification.title.value_or("?"));
                }
            } else if (const int j = indexInTitle(notification.title); j >= 0 && j % 3 != 0) {
                violation("notification " + *notification.title + " without its button");
            }
        }
        reads += 2;
    }

    std::cout << "reads " << reads << '\n' << "final " << seen << '\n';
    for (const auto& entry : capture->entries()) {
        if (entry.level >= LogLevel::error)
            std::cout << "failure " << entry.loggerPath << ": " << entry.message << '\n';
    }
    std::cout << "done" << std::endl;
    store.reset();
    MainQueue::main().setScheduler({});
    return 0;
}
