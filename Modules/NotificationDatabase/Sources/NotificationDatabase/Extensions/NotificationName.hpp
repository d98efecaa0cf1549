#pragma once

#include <NotificationDatabase/Export.hpp>

#include <string>

namespace notificationdb {

// The distributed notice posted about 1.0 s after every committed change of the stored
// notifications: "databaseUpdatedNotification". It carries no data.
NOTIFICATIONDB_API const std::string& databaseUpdated();

}  // namespace notificationdb
