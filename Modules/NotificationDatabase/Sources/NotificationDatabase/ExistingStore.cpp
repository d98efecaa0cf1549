#include "NotificationDatabase/ExistingStore.hpp"

#include "NotificationDatabase/Database/DatabaseError.hpp"

#include <sqlite3.h>

#include <filesystem>
#include <system_error>
#include <utility>

namespace notificationdb {

std::shared_ptr<NotificationDatabaseImpl> openExistingStore(const NotificationDatabaseConfig& config,
                                                            NotificationDatabaseServices services) {
    try {
        return NotificationDatabaseImpl::create(config, std::move(services));
    } catch (const DatabaseError& error) {
        if (!config.configuration().readOnly) throw;
        // Not made yet: no file at all, or a file whose writer has not created the tables yet.
        std::error_code ignored;
        const bool absent =
            error.resultCode() == SQLITE_CANTOPEN && !std::filesystem::exists(config.storageURL(), ignored);
        if (absent || error.resultCode() == SQLITE_READONLY) return nullptr;
        throw;
    }
}

}  // namespace notificationdb
