#include "NotificationDatabase/NotificationModel/NotificationModelInfo.hpp"

#include "NotificationDatabase/Database/RecordPersistence.hpp"
#include "NotificationDatabase/Database/Statement.hpp"

namespace notificationdb {

namespace {

std::optional<NotificationButton> readActionButton(const Row& row) {
    if (auto scope = row.scope(NotificationModelInfo::actionButtonKey); scope && !scope->allNull()) {
        return readRecord<NotificationButton>(*scope);
    }
    return std::nullopt;
}

}  // namespace

// Each member is built straight from its columns, the notification first.
NotificationModelInfo::NotificationModelInfo(const Row& joinedRow)
    : notification(readRecord<NotificationModel>(joinedRow)), actionButton(readActionButton(joinedRow)) {}

std::string describe(const NotificationIDs& ids) {
    std::string text = "[";
    bool first = true;
    for (const std::int64_t id : ids) {
        if (!first) text += ", ";
        text += std::to_string(id);
        first = false;
    }
    text += ']';
    return text;
}

}  // namespace notificationdb

std::size_t std::hash<notificationdb::NotificationModelInfo>::operator()(
    const notificationdb::NotificationModelInfo& info) const noexcept {
    const auto& id = info.notification.id();
    // Presence marker first, then the value: an absent id hashes apart from every present one.
    std::size_t seed = std::hash<int>{}(id ? 1 : 0);
    if (id) seed ^= std::hash<std::int64_t>{}(*id) + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
    return seed;
}
