// Opens a store on a database file, as an unprivileged user when asked, and tries to use it.
//
//   ndb_child_rel_open <database> <writer|reader> [uid]
//
// With a uid and when started as root, first drops to that user (and its group of the same
// number), so that file permissions apply as they do to an ordinary user ("cannot drop
// privileges" and exit status 4 when that is refused). Then creates a store
// with the writer configuration (read-write, waiting up to 2.0 s) or the reader configuration
// (read-only, waiting up to 2.0 s, reader connections kept open).
//
// Output: "unreachable" (exit status 5) when the file cannot be read at all, else
// "open-failed <result code> <code name>" when creation throws a database error
// ("open-failed other <what>" for another exception), else "opened", then "count <n>" and
// "listed <n>" from the store, then, for a writer, tries to save one notification and prints
// "count <n>" again. Last, one "log <message>" per message logged at error level, and "done".

#include <NotificationDatabase/Database/DatabaseError.hpp>
#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/NotificationDatabaseConfig.hpp>
#include <NotificationDatabase/Platform/Logger.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include <unistd.h>

int main(int argc, char** argv) {
    using namespace notificationdb;
    if (argc < 3) {
        std::cerr << "usage: ndb_child_rel_open <database> <writer|reader> [uid]\n";
        return 2;
    }
    const std::string database = argv[1];
    const bool writer = std::string(argv[2]) == "writer";
    if (argc > 3 && ::geteuid() == 0) {
        const auto id = static_cast<uid_t>(std::atol(argv[3]));
        if (::setgid(id) != 0 || ::setuid(id) != 0) {
            std::cout << "cannot drop privileges" << std::endl;
            return 4;
        }
    }
    if (::access(database.c_str(), R_OK) != 0) {
        std::cout << "unreachable" << std::endl;
        return 5;
    }

    auto capture = std::make_shared<CapturingLogDestination>();
    Logger::module()->setDestinations({capture});
    MainQueue::main().setScheduler([](auto, auto) {});

    Configuration configuration;
    configuration.busyMode = BusyMode::timeout(2.0);
    configuration.readOnly = !writer;
    configuration.persistentReadOnlyConnections = !writer;
    std::shared_ptr<NotificationDatabaseImpl> store;
    try {
        store = NotificationDatabaseImpl::create(NotificationDatabaseConfig(database, configuration));
        std::cout << "opened\n";
    } catch (const DatabaseError& error) {
        std::cout << "open-failed " << error.resultCode() << ' ' << DatabaseError::codeName(error.extendedResultCode())
                  << '\n';
    } catch (const std::exception& error) {
        std::cout << "open-failed other " << error.what() << '\n';
    }
    if (store) {
        std::cout << "count " << store->notificationsCount() << '\n';
        std::cout << "listed " << store->fetchNotifications(std::nullopt).size() << '\n';
        if (writer) {
            store->save({NotificationModel(std::nullopt, "customer", std::chrono::system_clock::now(), "9.9", "tag",
                                           "written by rel_open", std::nullopt, std::nullopt, false, std::nullopt,
                                           NotificationStatus::new_, NotificationKind::default_)});
            std::cout << "count " << store->notificationsCount() << '\n';
        }
        store.reset();
    }
    for (const auto& entry : capture->entries()) {
        if (entry.level >= LogLevel::error) std::cout << "log " << entry.message << '\n';
    }
    std::cout << "done" << std::endl;
    MainQueue::main().setScheduler({});
    return 0;
}
