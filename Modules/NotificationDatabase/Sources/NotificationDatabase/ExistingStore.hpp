#pragma once

#include <NotificationDatabase/Export.hpp>
#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/NotificationDatabaseConfig.hpp>

#include <memory>

namespace notificationdb {

// Opens a store for a process that only reads and may start before any writing process has
// made the file. With a read-only `config` it returns null, logging nothing, while the file or
// its tables do not exist yet (a read-only store cannot make them); the host calls again
// later, for instance when the writer's first `databaseUpdated()` notice arrives. Every other
// failure throws `DatabaseError` as `NotificationDatabaseImpl::create` does, and so does any
// failure with a configuration that may write. `services` are the store's, as for `create`.
NOTIFICATIONDB_API std::shared_ptr<NotificationDatabaseImpl> openExistingStore(
    const NotificationDatabaseConfig& config, NotificationDatabaseServices services = {});

}  // namespace notificationdb
