#include "NotificationDatabase/NotificationModel/NotificationModelInfo.hpp"

#include "NotificationDatabase/Database/JoinedRow.hpp"
#include "NotificationDatabase/Database/Statement.hpp"

namespace notificationdb {

JoinedRow::JoinedRow(const Row& row)
    : base_(row),
      notificationColumns_(columnsOf<NotificationModel>(row)),
      button_(row.scope(NotificationModelInfo::actionButtonKey)) {
    if (button_) buttonColumns_ = columnsOf<NotificationButton>(*button_);
}

NotificationModel JoinedRow::notification() const {
    RowFields fields(base_, notificationColumns_, RecordCoding<NotificationModel>::tableName,
                     RecordCoding<NotificationModel>::fields);
    return RecordCoding<NotificationModel>::decode(fields);
}

// Built in place: the optional is the caller's member (returned by name), and the button's
// fields go straight from their columns into it.
std::optional<NotificationButton> JoinedRow::actionButton() const {
    std::optional<NotificationButton> button;
    if (button_ && !button_->allNull()) {
        RowFields fields(*button_, buttonColumns_, RecordCoding<NotificationButton>::tableName,
                         RecordCoding<NotificationButton>::fields);
        RecordCoding<NotificationButton>::decode(fields, button.emplace(NotificationButton()));
    }
    return button;
}

// Each member is built straight from its columns, the notification first.
NotificationModelInfo::NotificationModelInfo(const JoinedRow& row)
    : notification(row.notification()), actionButton(row.actionButton()) {}

NotificationModelInfo NotificationModelInfo::fromJoinedRow(const Row& row) {
    return NotificationModelInfo(JoinedRow(row));
}

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
