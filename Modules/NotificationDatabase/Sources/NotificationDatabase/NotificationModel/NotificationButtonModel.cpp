#include "NotificationDatabase/NotificationModel/NotificationButtonModel.hpp"

#include "NotificationDatabase/Database/RecordPersistence.hpp"

#include <array>
#include <type_traits>
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

FieldView RecordCoding<NotificationButton>::view(const NotificationButton& record, std::size_t fieldIndex) {
    const auto optionalView = []<class T>(const std::optional<T>& value) -> FieldView {
        if (!value) return std::monostate{};
        if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, Bytes>) {
            return &*value;
        } else {
            return *value;
        }
    };
    switch (fieldIndex) {
        case 0:
            return optionalView(record.id_);
        case 1:
            return optionalView(record.buttonId);
        case 2:
            return optionalView(record.title);
        case 3:
            return record.visible;
        case 4:
            return optionalView(record.notificationId);
        case 5:
            if (!record.actionKind) return std::monostate{};
            return rawValue(*record.actionKind);
        case 6:
            return optionalView(record.userAction);
        default:
            return std::monostate{};
    }
}

FieldValue RecordCoding<NotificationButton>::encode(const NotificationButton& record, std::size_t fieldIndex) {
    return toFieldValue(view(record, fieldIndex));
}

// The action kind first, then the fields in column order: with several faults in a row, the
// first of them in this order is the one reported.
template <FieldSource Source>
void RecordCoding<NotificationButton>::decode(Source& source, NotificationButton& record) {
    if (auto raw = source.template optional<std::int64_t>(5)) {
        record.actionKind = fromRawValue<UserActionKind>(*raw);
        if (!record.actionKind) throw RecordDecodingError(tableName, "actionKind", "integer is no UserActionKind");
    } else {
        record.actionKind.reset();
    }
    record.id_ = source.template optional<std::int64_t>(0);
    source.optional(1, record.buttonId);
    source.optional(2, record.title);
    record.visible = source.template required<bool>(3);
    record.notificationId = source.template optional<std::int64_t>(4);
    source.optional(6, record.userAction);
}

template void RecordCoding<NotificationButton>::decode(FieldValues<7>&, NotificationButton&);
// Rows belong to the private database layer: this instance stays inside the library.
template NOTIFICATIONDB_HIDDEN void RecordCoding<NotificationButton>::decode(RowFields&, NotificationButton&);

}  // namespace notificationdb
