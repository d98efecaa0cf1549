// Saves notifications through a store of its own and keeps its main queue running until the
// change notices have gone out on the session bus.
//
//   ndb_child_save_notifications <database path> <count>
//
// Prints "saved <count>" once the notices are posted; library log messages go to stderr.

#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

int main(int argc, char** argv) {
    using namespace notificationdb;
    if (argc < 3) {
        std::cerr << "usage: ndb_child_save_notifications <database path> <count>\n";
        return 2;
    }
    const int count = std::atoi(argv[2]);
    try {
        Configuration configuration;
        configuration.busyMode = BusyMode::timeout(2.0);
        auto store = NotificationDatabaseImpl::create(NotificationDatabaseConfig(argv[1], configuration));
        for (int i = 0; i < count; ++i) {
            NotificationModel notification(std::nullopt, "child-customer", std::chrono::system_clock::now(),
                                           "child-" + std::to_string(i), "tag", "title", std::nullopt, std::nullopt,
                                           false, i, NotificationStatus::new_, NotificationKind::appUpdate);
            store->save(NotificationModelInfo(notification));
        }
        MainQueue::main().runUntilIdle();
    } catch (const std::exception& error) {
        std::cerr << "failed: " << error.what() << '\n';
        return 1;
    }
    std::cout << "saved " << count << std::endl;
    return 0;
}
