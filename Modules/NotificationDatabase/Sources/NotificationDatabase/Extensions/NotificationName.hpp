#pragma once

#include <string>

namespace notificationdb {

// The distributed notice posted about 1.0 s after every committed change of the stored
// notifications: "databaseUpdatedNotification". It carries no data.
const std::string& databaseUpdated();

}  // namespace notificationdb
