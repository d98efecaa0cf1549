// Reports the two ready-made configurations as a fresh process builds them on first use, and
// what stores opened on them do with a user who has no database yet.
//
//   ndb_child_config_constants
//
// Prints "key value" lines; library log messages are counted, not shown.

#include <NotificationDatabase/Database/DatabaseError.hpp>
#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/Platform/Logger.hpp>

#include <filesystem>
#include <iostream>
#include <memory>

namespace {

void describe(const char* name, const notificationdb::NotificationDatabaseConfig& config) {
    const auto& configuration = config.configuration();
    std::cout << name << ".path " << config.storageURL().string() << '\n'
              << name << ".readOnly " << configuration.readOnly << '\n'
              << name << ".busyKind " << static_cast<int>(configuration.busyMode.kind()) << '\n'
              << name << ".busySeconds " << configuration.busyMode.seconds() << '\n'
              << name << ".persistentReaders " << configuration.persistentReadOnlyConnections << '\n';
}

}  // namespace

int main() {
    using namespace notificationdb;
    auto capture = std::make_shared<CapturingLogDestination>();
    Logger::module()->setDestinations({capture});

    const auto& writable = NotificationDatabaseConfig::default_();
    const auto file = writable.storageURL();
    std::cout << "afterDefault.directory " << std::filesystem::is_directory(file.parent_path()) << '\n'
              << "afterDefault.file " << std::filesystem::exists(file) << '\n';
    describe("default", writable);
    describe("readOnly", NotificationDatabaseConfig::readOnly());

    try {
        NotificationDatabaseImpl::create(NotificationDatabaseConfig::readOnly());
        std::cout << "readOnlyStoreOnMissingFile opened\n";
    } catch (const DatabaseError& error) {
        std::cout << "readOnlyStoreOnMissingFile " << error.resultCode() << '\n';
    }
    try {
        auto store = NotificationDatabaseImpl::create(writable);
        std::cout << "defaultStore.file " << std::filesystem::exists(file) << '\n'
                  << "defaultStore.count " << store->notificationsCount() << '\n';
        auto reader = NotificationDatabaseImpl::create(NotificationDatabaseConfig::readOnly());
        std::cout << "readOnlyStore.count " << reader->notificationsCount() << '\n';
    } catch (const DatabaseError& error) {
        std::cout << "storeError " << error.what() << '\n';
    }
    std::cout << "logs " << capture->entries().size() << std::endl;
    return 0;
}
