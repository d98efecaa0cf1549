// A process that writes to a shared database file, started by the process tests:
//
//   ndb_child_writer <database> <writer> <count> <go file>
//
// Waits for <go file>, opens a store and saves <count> notifications titled "w<writer>-<j>", from two
// threads at once (even and odd j); every tenth has a content key that all writers share, two of
// three carry a button named like the notification. Prints "failed <message>" for each save that
// logged a failure, then "done".
// With NDB_CHILD_POSTS set it then posts its notices on the session bus, as their jobs come due,
// and returns at once: what the bus has not taken yet goes out as the process ends.

#include "Testing.hpp"

#include <iostream>
#include <thread>

using namespace notificationdb;

int main(int argc, char** argv) {
    if (argc != 5) return std::cerr << "usage: ndb_child_writer <database> <writer> <count> <go file>\n", 2;
    testing::TestServices test;
    auto services = test.services();
    if (std::getenv("NDB_CHILD_POSTS") != nullptr) services.noticeCenter = nullptr;  // the session bus
    std::cout << "ready" << std::endl;
    while (!std::filesystem::exists(argv[4])) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    // Opened as all the others create the file.
    auto store = NotificationDatabaseImpl::create(
        NotificationDatabaseConfig(argv[1], Configuration{false, BusyMode::timeout(2.0), false}), services);
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
    for (auto& [deadline, job] : test.takeJobs()) {
        std::this_thread::sleep_until(deadline);
        job();
    }
}
