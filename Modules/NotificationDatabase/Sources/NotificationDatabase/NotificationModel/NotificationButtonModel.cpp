#include "NotificationDatabase/NotificationModel/NotificationButtonModel.hpp"

#include <array>
#include <utility>

namespace notificationdb {

namespace {

constexpr std::array<std::string_view, 7> kActionKindNames{
    "openCabinet", "openApp", "openCollection", "openLink", "openBlogArticle", "openVantro", "refreshInstalledApps"};

template <class Value>
Value required(FieldValue& value, std::string_view field) {
    return requiredValue<Value>(value, NotificationButton::databaseTableName, field);
}

template <class Value>
std::optional<Value> optional(FieldValue& value, std::string_view field) {
    return optionalValue<Value>(value, NotificationButton::databaseTableName, field);
}

}  // namespace

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

template <>
std::optional<UserActionKind> fromRawValue<UserActionKind>(std::int64_t raw) noexcept {
    if (raw < 0 || raw >= static_cast<std::int64_t>(kActionKindNames.size())) return std::nullopt;
    return static_cast<UserActionKind>(raw);
}

std::optional<UserActionKind> makeUserActionKind(std::int64_t value) noexcept {
    return fromRawValue<UserActionKind>(value);
}

std::string_view caseName(UserActionKind kind) noexcept {
    return kActionKindNames.at(static_cast<std::size_t>(rawValue(kind)));
}

template <>
std::optional<UserActionKind> fromCaseName<UserActionKind>(std::string_view name) noexcept {
    for (std::size_t i = 0; i < kActionKindNames.size(); ++i) {
        if (kActionKindNames[i] == name) return static_cast<UserActionKind>(i);
    }
    return std::nullopt;
}

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

NotificationButton RecordCoding<NotificationButton>::decode(std::array<FieldValue, 7>& values) {
    std::optional<UserActionKind> actionKind;
    if (auto raw = optional<std::int64_t>(values[5], "actionKind")) {
        actionKind = fromRawValue<UserActionKind>(*raw);
        if (!actionKind) throw RecordDecodingError(tableName, "actionKind", "integer is no UserActionKind");
    }
    return {optional<std::int64_t>(values[0], "id"),
            optional<std::string>(values[1], "buttonId"),
            optional<std::string>(values[2], "title"),
            required<bool>(values[3], "visible"),
            optional<std::int64_t>(values[4], "notificationId"),
            actionKind,
            optional<Bytes>(values[6], "userAction")};
}

}  // namespace notificationdb
