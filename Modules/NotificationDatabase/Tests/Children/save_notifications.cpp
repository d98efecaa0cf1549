// Saves notifications through a store of its own and keeps its main queue running until the
// change notices have gone out on the session bus.
//
//   ndb_child_save_notifications <database path> <count>
//
// Prints "saved <count>" once the notices are posted; library log messages go to stderr.

#include "TestSupport.hpp"

#include <iostream>

int main(int argc, char** argv) {
    using namespace notificationdb;
    if (argc < 3) {
        std::cerr << "usage: ndb_child_save_notifications <database path> <count>\n";
        return 2;
    }
    const int count = std::atoi(argv[2]);
    try {
        auto store =
            NotificationDatabaseImpl::create(NotificationDatabaseConfig(argv[1], testing::writerConfiguration()));
        for (int i = 0; i < count; ++i) {
            store->save(testing::note({.customer = "child-customer",
                                       .version = "child-" + std::to_string(i),
                                       .kind = NotificationKind::appUpdate,
                                       .appId = i}));
        }
        MainQueue::main().runUntilIdle();
    } catch (const std::exception& error) {
        std::cerr << "failed: " << error.what() << '\n';
        return 1;
    }
    std::cout << "saved " << count << std::endl;
    return 0;
}
