#include "NotificationDatabase/NotificationModel/NotificationModelInfo.hpp"

std::size_t std::hash<notificationdb::NotificationModelInfo>::operator()(
    const notificationdb::NotificationModelInfo& info) const noexcept {
    const auto& id = info.notification.id();
    // Presence marker first, then the value: an absent id hashes apart from every present one.
    std::size_t seed = std::hash<int>{}(id ? 1 : 0);
    if (id) seed ^= std::hash<std::int64_t>{}(*id) + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
    return seed;
}
