// One of several writer processes that save stress notifications (see StressSupport.hpp) into
// one shared database file.
//
//   ndb_child_rel_writer <database> <writer> <count> <go file> [open-after-go]
//
// Opens a store on <database> with the writer configuration, prints "ready", waits until
// <go file> exists and then saves <count> notifications titled "w<writer>-<j>", one save each.
// With "open-after-go" the store is opened only after the go file appears, so that several
// writers set up a new file at the same moment; a failed creation prints "open-failed <error>"
// and is tried again (up to 100 times, 10 ms apart). A store that cannot be opened exits with 3.
//
// Output, once done: "notices <n>" (change notices the store scheduled), one
// "failure <logger>: <message>" per message logged at error level, "done <count>".

#include "StressSupport.hpp"

#include <iostream>
#include <thread>

int main(int argc, char** argv) {
    using namespace notificationdb;
    using namespace notificationdb::testing;
    if (argc < 5) {
        std::cerr << "usage: ndb_child_rel_writer <database> <writer> <count> <go file> [open-after-go]\n";
        return 2;
    }
    const std::filesystem::path database = argv[1];
    const int writer = std::atoi(argv[2]);
    const int count = std::atoi(argv[3]);
    const std::filesystem::path goFile = argv[4];
    const bool openAfterGo = argc > 5 && std::string(argv[5]) == "open-after-go";

    LogCapture capture;
    // Notices are counted, not posted: this process has no main queue running.
    CountingNotices notices;
    std::shared_ptr<NotificationDatabaseImpl> store;
    auto open = [&] {
        try {
            store = NotificationDatabaseImpl::create(NotificationDatabaseConfig(database, writerConfiguration()));
            return true;
        } catch (const std::exception& error) {
            std::cout << "open-failed " << error.what() << std::endl;
            return false;
        }
    };

    if (!openAfterGo && !open()) return 3;
    std::cout << "ready" << std::endl;
    while (!std::filesystem::exists(goFile)) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    // Creation may fail while another process sets up the new file; like a host, try again.
    for (int attempt = 1; openAfterGo && !open(); ++attempt) {
        if (attempt == 100) return 3;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }

    for (int j = 0; j < count; ++j) store->save(stressNotification("w", writer, j));
    store.reset();

    std::cout << "notices " << notices.count() << '\n';
    for (const auto& entry : capture.entries()) {
        if (entry.level >= LogLevel::error)
            std::cout << "failure " << entry.loggerPath << ": " << entry.message << '\n';
    }
    std::cout << "done " << count << std::endl;
    return 0;
}
