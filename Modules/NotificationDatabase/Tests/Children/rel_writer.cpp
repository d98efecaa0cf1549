// One of several writer processes that save notifications into one shared database file.
//
//   ndb_child_rel_writer <database> <writer> <count> <go file> [open-after-go]
//
// Opens a store on <database> with the writer configuration (read-write, waiting up to 2.0 s
// on a lock), prints "ready", waits until <go file> exists and then saves <count>
// notifications, one save each. With "open-after-go" the store is opened only after the go
// file appears, so that several writers set up a new file at the same moment; a failed
// creation is tried again (up to 100 times, 10 ms apart).
//
// Notification j of writer w has the title "w<w>-<j>". Every tenth (j % 10 == 0) carries the
// content key that all writers share for that j: customer "shared", kind newApp, version
// "shared-<j>", app j; only one writer's copy may be stored. The others have keys of their own.
// Every notification with j % 3 != 0 has a button whose buttonId repeats the title.
//
// Output, once done: "notices <n>" (change notices the store scheduled), one
// "failure <logger>: <message>" per message logged at error level, "done <count>". Each failed
// creation prints "open-failed <error>"; a store that cannot be opened at all exits with 3.

#include <NotificationDatabase/Database/DatabaseError.hpp>
#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/NotificationDatabaseConfig.hpp>
#include <NotificationDatabase/Platform/Logger.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

namespace {

using namespace notificationdb;

constexpr NotificationKind kKinds[] = {NotificationKind::default_, NotificationKind::newApp,
                                       NotificationKind::appUpdate, NotificationKind::vantroUpdate,
                                       NotificationKind::ai};

NotificationModelInfo makeNotification(int writer, int j) {
    const std::string title = "w" + std::to_string(writer) + "-" + std::to_string(j);
    const bool shared = j % 10 == 0;
    NotificationModel notification(std::nullopt,
                                   shared ? std::optional<std::string>("shared") : "c" + std::to_string(writer),
                                   std::chrono::system_clock::now(), shared ? "shared-" + std::to_string(j) : title,
                                   "tag", title, "body of " + title, std::nullopt, j % 2 == 0,
                                   shared || j % 4 != 1 ? std::optional<std::int64_t>(j) : std::nullopt,
                                   NotificationStatus::new_, shared ? NotificationKind::newApp : kKinds[j % 5]);
    std::optional<NotificationButton> button;
    if (j % 3 != 0) {
        button = NotificationButton(std::nullopt, title, "Open", true, std::nullopt, static_cast<UserActionKind>(j % 7),
                                    Bytes{0, 1, 0xff});
    }
    return {std::move(notification), std::move(button)};
}

void waitForFile(const std::filesystem::path& path) {
    while (!std::filesystem::exists(path)) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        std::cerr << "usage: ndb_child_rel_writer <database> <writer> <count> <go file> [open-after-go]\n";
        return 2;
    }
    const std::filesystem::path database = argv[1];
    const int writer = std::atoi(argv[2]);
    const int count = std::atoi(argv[3]);
    const std::filesystem::path goFile = argv[4];
    const bool openAfterGo = argc > 5 && std::string(argv[5]) == "open-after-go";

    auto capture = std::make_shared<CapturingLogDestination>();
    Logger::module()->setDestinations({capture});
    // Notices are counted, not posted: this process has no main queue running.
    std::atomic<int> notices{0};
    MainQueue::main().setScheduler([&notices](auto, auto) { ++notices; });

    Configuration configuration;
    configuration.busyMode = BusyMode::timeout(2.0);
    std::shared_ptr<NotificationDatabaseImpl> store;
    auto open = [&] {
        try {
            store = NotificationDatabaseImpl::create(NotificationDatabaseConfig(database, configuration));
            return true;
        } catch (const std::exception& error) {
            std::cout << "open-failed " << error.what() << std::endl;
            return false;
        }
    };

    if (!openAfterGo && !open()) return 3;
    std::cout << "ready" << std::endl;
    waitForFile(goFile);
    if (openAfterGo) {
        // Creation may fail while another process sets up the new file; like a host, try again.
        for (int attempt = 1; !open(); ++attempt) {
            if (attempt == 100) return 3;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

    for (int j = 0; j < count; ++j) store->save(makeNotification(writer, j));
    store.reset();

    std::cout << "notices " << notices.load() << '\n';
    for (const auto& entry : capture->entries()) {
        if (entry.level >= LogLevel::error)
            std::cout << "failure " << entry.loggerPath << ": " << entry.message << '\n';
    }
    std::cout << "done " << count << std::endl;
    MainQueue::main().setScheduler({});
    return 0;
}
