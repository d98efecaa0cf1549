// A process that writes to a shared database file, started by the process tests.
//
//   ndb_child_writer saves <database> <writer> <count> <go file>
//       Waits for <go file>, opens a store and saves <count> notifications titled "w<writer>-<j>". Prints
//       "failed <title>" for each save that logged a failure, then "done".
//   ndb_child_writer crash <database> <run>
//       Receives notifications through an updater for ever, printing "committed <title>" after
//       each batch returned, and "pruned <title>" for one created 40 days ago, which the batch's
//       own pruning deletes again. Meant to be killed.

#include "Testing.hpp"

#include <NotificationDatabase/NotificationUpdater/NotificationUpdaterImpl.hpp>

#include <iostream>
#include <thread>

using namespace notificationdb;
using namespace std::chrono_literals;

namespace {

// A notification titled `title`; with `shared`, every tenth j has a content key that all writers
// share. Two of three carry a button named like the notification.
NotificationModelInfo notification(const std::string& title, int j, Timestamp created, bool shared = false) {
    shared = shared && j % 10 == 0;
    NotificationModel n(std::nullopt, shared ? "shared" : title, created, shared ? std::to_string(j) : title, "tag",
                        title, std::nullopt, std::nullopt, false, j, NotificationStatus::new_,
                        shared ? NotificationKind::newApp : *fromRawValue<NotificationKind>(j % 5));
    if (j % 3 == 0) return NotificationModelInfo(n);
    return {n, NotificationButton(std::nullopt, title, "Open", true, std::nullopt, UserActionKind::openApp, Bytes{0})};
}

// Prints the failures the library logs as they happen: a killed process prints nothing later.
class Failures final : public LogDestination {
public:
    void write(std::string_view, LogLevel, std::string_view message) override { logged = std::string(message); }
    std::string logged;
};

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 3 ? argv[1] : "";
    const NotificationDatabaseConfig config(
        argv[2], Configuration{false, BusyMode::timeout(NotificationDatabaseConfig::busyTimeoutSeconds), false});
    // The store's failures go to `failures`; its notices are dropped.
    auto failures = std::make_shared<Failures>();
    const NotificationDatabaseServices services{
        std::make_shared<Logger>("root", nullptr, Logger::Destinations{failures}, false), [](auto, auto) {}, nullptr};
    std::shared_ptr<NotificationDatabaseImpl> store;
    if (mode == "saves") {
        const std::string writer = argv[3];
        std::cout << "ready" << std::endl;
        while (!std::filesystem::exists(argv[5])) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        store = NotificationDatabaseImpl::create(config, services);  // as all the others create the file
        for (int j = 0; j < std::atoi(argv[4]); ++j) {
            const std::string title = "w" + writer + "-" + std::to_string(j);
            failures->logged.clear();
            store->save(notification(title, j, std::chrono::system_clock::now(), true));
            if (!failures->logged.empty()) std::cout << "failed " << title << ' ' << failures->logged << '\n';
        }
    } else if (mode == "crash") {
        store = NotificationDatabaseImpl::create(config, services);
        NotificationUpdaterImpl updater(store);
        std::cout << "ready" << std::endl;
        for (int j = 1;; ++j) {
            const std::string title = "r" + std::string(argv[3]) + "-" + std::to_string(j);
            const bool old = j % 7 == 3;
            updater.receive({notification(title, j, std::chrono::system_clock::now() - (old ? 960h : 0h))});
            if (!failures->logged.empty()) return std::cout << "failed " << failures->logged << std::endl, 1;
            std::cout << (old ? "pruned " : "committed ") << title << std::endl;
        }
    } else {
        std::cerr << "usage: ndb_child_writer saves|crash <database> ...\n";
        return 2;
    }
    std::cout << "done" << std::endl;
    return 0;
}
