#include "NotificationDatabase/Extensions/NotificationName.hpp"

namespace notificationdb {

const std::string& databaseUpdated() {
    static const std::string name = "databaseUpdatedNotification";
    return name;
}

}  // namespace notificationdb
