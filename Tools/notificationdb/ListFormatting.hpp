#pragma once

#include <NotificationDatabase/NotificationModel/NotificationModelInfo.hpp>

#include <ostream>
#include <vector>

namespace notificationdb::tool {

// Writes the notifications as readable lines, one block per entry in the given order: id, date,
// kind, status and customer on the first line, then texts and the button. Texts are quoted and
// escaped, so that a title cannot break the layout.
void printNotificationList(std::ostream& out, const std::vector<NotificationModelInfo>& infos);

}  // namespace notificationdb::tool
