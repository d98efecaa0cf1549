// Posts a distributed notice through the default center a number of times, then exits.
//
//   ndb_child_post <name> [count]
//
// Prints "posted <count>" once done, then every message the library logged meanwhile as
// "log <level> <logger path>: <message>", one per line.

#include <NotificationDatabase/Platform/DistributedNotificationCenter.hpp>
#include <NotificationDatabase/Platform/Logger.hpp>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

int main(int argc, char** argv) {
    using namespace notificationdb;
    if (argc < 2) {
        std::cerr << "usage: ndb_child_post <name> [count]\n";
        return 2;
    }
    std::string name = argv[1];
    int count = argc > 2 ? std::atoi(argv[2]) : 1;

    auto capture = std::make_shared<CapturingLogDestination>();
    Logger::module()->setDestinations({capture});

    auto center = DistributedNotificationCenter::defaultCenter();
    for (int i = 0; i < count; ++i) {
        center->post(name);
    }

    std::cout << "posted " << count << '\n';
    for (const auto& entry : capture->entries()) {
        std::cout << "log " << logLevelName(entry.level) << ' ' << entry.loggerPath << ": " << entry.message << '\n';
    }
    std::cout.flush();
    return 0;
}
