#include "NotificationDatabase/NotificationModel/NotificationButtonModel.hpp"

#include <utility>

namespace notificationdb {

NotificationButton::NotificationButton(std::optional<std::int64_t> id, std::optional<std::string> buttonId,
                                       std::optional<std::string> title, bool visible,
                                       std::optional<std::int64_t> notificationId,
                                       std::optional<UserActionKind> actionKind, std::optional<Bytes> userAction)
    : buttonId(std::move(buttonId)),
      title(std::move(title)),
      visible(visible),
      notificationId(notificationId),
      actionKind(actionKind),
      userAction(std::move(userAction)),
      id_(id) {}

}  // namespace notificationdb
