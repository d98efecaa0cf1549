// A writer that reports each change it knows to be committed, meant to be killed at any moment.
//
//   ndb_child_rel_crash_writer <database> <run>
//
// Opens a store on <database> with the writer configuration and an updater over it, prints
// "ready", then loops for ever over n = 0, 1, 2, ...; key = "r<run>-<n>":
//   - n % 7 == 3: hands the updater a batch with one notification created 40 days ago; the
//     updater saves it and its pruning pass deletes it again. Prints "pruned <key>".
//   - n % 4 == 1: saves a fresh notification directly through the store. Prints
//     "committed <key>".
//   - otherwise: hands the updater a batch with one fresh notification. Prints
//     "committed <key>".
// Each line is written only after the call returned, so everything it names has committed.
// The key is the notification's title, version and customer (one customer per notification,
// so that the per-customer limit never prunes them); its button's buttonId repeats the key.
// A message logged at error level prints "failure <logger>: <message>" at once.

#include <NotificationDatabase/NotificationUpdater/NotificationUpdaterImpl.hpp>

#include "TestSupport.hpp"

#include <iostream>

namespace {

using namespace notificationdb;

// Prints failures as they happen: the process never gets to print anything at its end.
class PrintingLogDestination final : public LogDestination {
public:
    void write(std::string_view loggerPath, LogLevel level, std::string_view message) override {
        if (level < LogLevel::error) return;
        std::lock_guard lock(mutex_);
        std::cout << "failure " << loggerPath << ": " << message << std::endl;
    }

private:
    std::mutex mutex_;
};

NotificationModelInfo makeNotification(const std::string& key, long n, Timestamp created) {
    constexpr NotificationKind kinds[] = {NotificationKind::newApp, NotificationKind::appUpdate,
                                          NotificationKind::vantroUpdate, NotificationKind::ai};
    return {testing::note({.customer = "customer-" + key,
                           .version = key,
                           .kind = kinds[n % 4],
                           .appId = n,
                           .created = created,
                           .title = key}),
            testing::button(std::nullopt, key)};
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::cerr << "usage: ndb_child_rel_crash_writer <database> <run>\n";
        return 2;
    }
    const std::string run = argv[2];
    Logger::module()->setDestinations({std::make_shared<PrintingLogDestination>()});
    testing::CountingNotices notices;
    std::shared_ptr<NotificationDatabaseImpl> store;
    try {
        store = NotificationDatabaseImpl::create(NotificationDatabaseConfig(argv[1], testing::writerConfiguration()));
    } catch (const std::exception& error) {
        std::cout << "open-failed " << error.what() << std::endl;
        return 3;
    }
    NotificationUpdaterImpl updater(store);
    std::cout << "ready" << std::endl;

    for (long n = 0;; ++n) {
        const std::string key = "r" + run + "-" + std::to_string(n);
        const auto now = std::chrono::system_clock::now();
        if (n % 7 == 3) {
            updater.receive({makeNotification(key, n, now - std::chrono::hours(24 * 40))});
            std::cout << "pruned " << key << std::endl;
        } else if (n % 4 == 1) {
            store->save(makeNotification(key, n, now));
            std::cout << "committed " << key << std::endl;
        } else {
            updater.receive({makeNotification(key, n, now)});
            std::cout << "committed " << key << std::endl;
        }
    }
}
