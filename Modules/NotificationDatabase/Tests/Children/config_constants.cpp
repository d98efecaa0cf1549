// Reports the two ready-made configurations as a fresh process builds them on first use, and
// what stores opened on them do with a user who has no database yet.
//
//   ndb_child_config_constants
//
// Prints one line per step (see below); library log messages are counted, not shown.

#include <NotificationDatabase/DatabaseError.hpp>

#include "TestSupport.hpp"

#include <iostream>

namespace {

using namespace notificationdb;

// "<name> <path> readOnly <0|1> busy <kind> <seconds> persistentReaders <0|1>"
void describe(const char* name, const NotificationDatabaseConfig& config) {
    const auto& configuration = config.configuration();
    std::cout << name << ' ' << config.storageURL().string() << " readOnly " << configuration.readOnly << " busy "
              << static_cast<int>(configuration.busyMode.kind()) << ' ' << configuration.busyMode.seconds()
              << " persistentReaders " << configuration.persistentReadOnlyConnections << '\n';
}

}  // namespace

int main() {
    testing::LogCapture capture;
    const auto& writable = NotificationDatabaseConfig::default_();
    const auto file = writable.storageURL();
    std::cout << "after first use: directory " << std::filesystem::is_directory(file.parent_path()) << " file "
              << std::filesystem::exists(file) << '\n';
    describe("default", writable);
    describe("readOnly", NotificationDatabaseConfig::readOnly());
    try {
        NotificationDatabaseImpl::create(NotificationDatabaseConfig::readOnly());
        std::cout << "read-only store on the missing file: opened\n";
    } catch (const DatabaseError& error) {
        std::cout << "read-only store on the missing file: error " << error.resultCode() << '\n';
    }
    try {
        auto store = NotificationDatabaseImpl::create(writable);
        auto reader = NotificationDatabaseImpl::create(NotificationDatabaseConfig::readOnly());
        std::cout << "stores: file " << std::filesystem::exists(file) << " counts " << store->notificationsCount()
                  << ' ' << reader->notificationsCount() << '\n';
    } catch (const DatabaseError& error) {
        std::cout << "store error " << error.what() << '\n';
    }
    std::cout << "logs " << capture.entries().size() << std::endl;
    return 0;
}
