// Opens a store on a database file, as an unprivileged user when asked, and tries to use it.
//
//   ndb_child_rel_open <database> <writer|reader> [uid]
//
// With a uid and when started as root, first drops to that user (and its group of the same
// number), so that file permissions apply as they do to an ordinary user ("cannot drop
// privileges" and exit status 4 when that is refused). Then creates a store with the writer or
// the reader configuration of TestSupport.hpp.
//
// Output: "unreachable" (exit status 5) when the file cannot be read at all, else
// "open-failed <result code> <code name>" when creation throws a database error
// ("open-failed other <what>" for another exception), else "opened", then "count <n>" and
// "listed <n>" from the store, then, for a writer, tries to save one notification and prints
// "count <n>" again. Last, one "log <message>" per message logged at error level, and "done".

#include <NotificationDatabase/DatabaseError.hpp>

#include "TestSupport.hpp"

#include <iostream>

int main(int argc, char** argv) {
    using namespace notificationdb;
    using namespace notificationdb::testing;
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

    LogCapture capture;
    CountingNotices notices;
    try {
        auto store = NotificationDatabaseImpl::create(
            NotificationDatabaseConfig(database, writer ? writerConfiguration() : readerConfiguration()));
        std::cout << "opened\n"
                  << "count " << store->notificationsCount() << '\n'
                  << "listed " << store->fetchNotifications(std::nullopt).size() << '\n';
        if (writer) {
            store->save(note({.version = "9.9", .title = "written by rel_open"}));
            std::cout << "count " << store->notificationsCount() << '\n';
        }
    } catch (const DatabaseError& error) {
        std::cout << "open-failed " << error.resultCode() << ' ' << DatabaseError::codeName(error.extendedResultCode())
                  << '\n';
    } catch (const std::exception& error) {
        std::cout << "open-failed other " << error.what() << '\n';
    }
    for (const auto& entry : capture.entries()) {
        if (entry.level >= LogLevel::error) std::cout << "log " << entry.message << '\n';
    }
    std::cout << "done" << std::endl;
    return 0;
}
