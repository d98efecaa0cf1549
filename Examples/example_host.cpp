// A minimal host of the NotificationDatabase library: it opens a store on a file of its own,
// hands a batch of two notifications to an updater and waits on its main queue for the change
// notice that every process of the user hears.

#include <NotificationDatabase/DatabaseUpdateObserver.hpp>
#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/NotificationDatabaseConfig.hpp>
#include <NotificationDatabase/NotificationUpdater/NotificationUpdaterImpl.hpp>
#include <NotificationDatabase/Platform/LogSanitizer.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

namespace {

using namespace std::chrono_literals;
using namespace notificationdb;

NotificationModelInfo makeNotification(std::int64_t id, std::string title, NotificationKind kind) {
    NotificationModel notification(id, "customer-1", std::chrono::system_clock::now(), "1.0", "example",
                                   std::move(title), "Sent by the example host", std::nullopt, false, std::nullopt,
                                   NotificationStatus::new_, kind);
    NotificationButton button(std::nullopt, "open", "Open", true, std::nullopt, UserActionKind::openCabinet,
                              Bytes{'h', 'i'});
    return {std::move(notification), std::move(button)};
}

// Removes the example's directory whatever way main() ends.
struct DirectoryRemover {
    std::filesystem::path path;
    ~DirectoryRemover() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
};

}  // namespace

int main() {
    // A private file, so that the example never touches the user's own notifications.
    std::string pattern = (std::filesystem::temp_directory_path() / "notificationdb-example.XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        std::cerr << "cannot create a temporary directory\n";
        return 1;
    }
    DirectoryRemover remover{pattern};

    Configuration configuration;
    configuration.busyMode = BusyMode::timeout(NotificationDatabaseConfig::busyTimeoutSeconds);
    const NotificationDatabaseConfig config(remover.path / "NotificationDatabase.sqlite", configuration);

    std::shared_ptr<NotificationDatabaseImpl> store;
    try {
        store = NotificationDatabaseImpl::create(config);
    } catch (const std::exception& error) {
        std::cerr << "cannot open " << config.storageURL() << ": " << LogSanitizer::sanitizeError(error) << '\n';
        return 1;
    }
    std::cout << "opened " << config.storageURL().string() << '\n';

    // The notice arrives on the main queue, which this host drives below.
    bool heard = false;
    const DatabaseUpdateObserver updates([&heard] {
        std::cout << "heard databaseUpdatedNotification\n";
        heard = true;
        MainQueue::main().stop();
    });
    if (!updates.isObserving()) std::cout << "no session bus: the change notice cannot be heard\n";

    auto updater = std::make_shared<NotificationUpdaterImpl>(store);
    updater->receive({makeNotification(1, "A new app for you", NotificationKind::newApp),
                      makeNotification(2, "An update is ready", NotificationKind::appUpdate)});

    std::cout << "stored " << store->notificationsCount() << " notifications:\n";
    for (const auto& info : store->fetchNotifications(std::nullopt)) {
        std::cout << "  #" << *info.notification.id() << ' ' << info.notification.title.value_or("")
                  << (info.actionButton ? " [" + info.actionButton->title.value_or("") + "]" : std::string()) << '\n';
    }

    if (updates.isObserving()) MainQueue::main().runFor(5s);
    if (!heard) {
        std::cout << "no databaseUpdatedNotification within 5 seconds\n";
        return 1;
    }
    return 0;
}
