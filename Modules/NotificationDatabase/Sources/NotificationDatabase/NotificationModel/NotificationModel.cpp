#include "NotificationDatabase/NotificationModel/NotificationModel.hpp"

#include <utility>

namespace notificationdb {

NotificationModel::NotificationModel(std::optional<std::int64_t> id, std::optional<std::string> customerId,
                                     Timestamp createdDate, std::string version, std::string analyticsTag,
                                     std::optional<std::string> title, std::optional<std::string> body,
                                     std::optional<std::string> bannerUrl, bool isMarketing,
                                     std::optional<std::int64_t> appId, NotificationStatus status,
                                     NotificationKind notificationKind)
    : createdDate(createdDate),
      version(std::move(version)),
      analyticsTag(std::move(analyticsTag)),
      title(std::move(title)),
      body(std::move(body)),
      bannerUrl(std::move(bannerUrl)),
      isMarketing(isMarketing),
      appId(appId),
      status(status),
      notificationKind(notificationKind),
      id_(id),
      customerId_(std::move(customerId)) {}

}  // namespace notificationdb
