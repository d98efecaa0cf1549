#include "NotificationDatabase/NotificationModel/NotificationButtonModel.hpp"

#include "NotificationDatabase/Database/RecordPersistence.hpp"

#include <array>
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

FieldValue RecordCoding<NotificationButton>::encode(const NotificationButton& record, std::size_t fieldIndex) {
    const auto optionalField = [](const auto& value) -> FieldValue {
        if (!value) return std::monostate{};
        return *value;
    };
    switch (fieldIndex) {
        case 0:
            return optionalField(record.id_);
        case 1:
            return optionalField(record.buttonId);
        case 2:
            return optionalField(record.title);
        case 3:
            return record.visible;
        case 4:
            return optionalField(record.notificationId);
        case 5:
            if (!record.actionKind) return std::monostate{};
            return rawValue(*record.actionKind);
        case 6:
            return optionalField(record.userAction);
        default:
            return std::monostate{};
    }
}

template <FieldSource Source>
NotificationButton RecordCoding<NotificationButton>::decode(Source& source) {
    std::optional<UserActionKind> actionKind;
    if (auto raw = source.template optional<std::int64_t>(5)) {
        actionKind = fromRawValue<UserActionKind>(*raw);
        if (!actionKind) throw RecordDecodingError(tableName, "actionKind", "integer is no UserActionKind");
    }
    return {source.template optional<std::int64_t>(0), source.template optional<std::string>(1),
            source.template optional<std::string>(2),  source.template required<bool>(3),
            source.template optional<std::int64_t>(4), actionKind,
            source.template optional<Bytes>(6)};
}

template NotificationButton RecordCoding<NotificationButton>::decode(FieldValues<7>&);
// Rows belong to the private database layer: this instance stays inside the library.
template NOTIFICATIONDB_HIDDEN NotificationButton RecordCoding<NotificationButton>::decode(RowFields&);

}  // namespace notificationdb
