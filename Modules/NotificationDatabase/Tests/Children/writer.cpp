// ndb_child_writer <database> <writer> <count> <go file>: waits for <go file>, then saves <count>
// notifications "w<writer>-<j>" from two threads (even and odd j), every tenth with a key all writers
// share, two of three with a button named alike; prints "failed <message>" per failed save, then "done".

#include "Testing.hpp"

#include <iostream>
#include <thread>

using namespace notificationdb;

int main(int argc, char** argv) {
    if (argc != 5) return std::cerr << "usage: ndb_child_writer <database> <writer> <count> <go file>\n", 2;
    testing::TestServices test;
    std::cout << "ready" << std::endl;
    while (!std::filesystem::exists(argv[4])) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    // Opened as all the others create the file.
    auto store = NotificationDatabaseImpl::create(
        NotificationDatabaseConfig(argv[1], Configuration{false, BusyMode::timeout(2.0), false}), test.services());
    const auto saves = [&](int first) {
        for (int j = first; j < std::atoi(argv[3]); j += 2) {
            const std::string title = "w" + std::string(argv[2]) + "-" + std::to_string(j);
            const bool shared = j % 10 == 0;
            auto n = testing::notification(std::nullopt, shared ? "shared" : title,
                                           shared ? NotificationKind::newApp : testing::storedKinds[j % 5],
                                           shared ? std::to_string(j) : title, std::chrono::system_clock::now());
            n.title = title;
            n.appId = j;
            const NotificationButton button(std::nullopt, title, "Open", true, std::nullopt, UserActionKind::openApp,
                                            Bytes{0});
            store->save(j % 3 == 0 ? NotificationModelInfo(n) : NotificationModelInfo(n, button));
        }
    };
    std::thread odd(saves, 1);
    saves(0);
    odd.join();
    for (const auto& failure : test.takeLog()) std::cout << "failed " << failure.message << '\n';
    std::cout << "done" << std::endl;
}
