#pragma once

#include <NotificationDatabase/Export.hpp>
#include <NotificationDatabase/RecordCoding/RecordCoding.hpp>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace notificationdb {

// The one action button a notification may carry: a row of the table "notificationButton".
// A plain value. Every field is readable; all but `id` are public and assignable.
class NOTIFICATIONDB_API NotificationButton {
public:
    // What pressing the button does; stored as its raw value.
    enum class UserActionKind : std::int64_t {
        openCabinet = 0,
        openApp = 1,
        openCollection = 2,
        openLink = 3,
        openBlogArticle = 4,
        openVantro = 5,
        refreshInstalledApps = 6,
    };

    static constexpr std::string_view databaseTableName = "notificationButton";  // the table of the buttons

    // Takes all seven fields in column order; nothing is defaulted, validated or normalised.
    NotificationButton(std::optional<std::int64_t> id, std::optional<std::string> buttonId,
                       std::optional<std::string> title, bool visible, std::optional<std::int64_t> notificationId,
                       std::optional<UserActionKind> actionKind, std::optional<Bytes> userAction);

    // The row id; absent on a button that was never stored.
    const std::optional<std::int64_t>& id() const noexcept { return id_; }

    std::optional<std::string> buttonId;  // the service's identifier of the button
    std::optional<std::string> title;     // the button's label
    bool visible;                         // whether the host shows it
    // The owning notification's id; the store's save sets it.
    std::optional<std::int64_t> notificationId;
    std::optional<UserActionKind> actionKind;  // what pressing it does
    // The action's payload, stored and returned byte for byte, never interpreted.
    std::optional<Bytes> userAction;

private:
    friend struct RecordCoding<NotificationButton>;
    // Every field absent or false: the start of a record read in place.
    NotificationButton() noexcept : visible(false) {}

    std::optional<std::int64_t> id_;
};

using UserActionKind = NotificationButton::UserActionKind;

template <>
struct EnumerationCases<UserActionKind> {
    static constexpr std::string_view typeName = "UserActionKind";
    static constexpr std::array<std::string_view, 7> names{
        "openCabinet",     "openApp",    "openCollection",      "openLink",
        "openBlogArticle", "openVantro", "refreshInstalledApps"};
};

// The integer construction behaves like the strict one: there is no fallback case.
constexpr std::optional<UserActionKind> makeUserActionKind(std::int64_t value) noexcept {
    return fromRawValue<UserActionKind>(value);
}

// The keyed coding of the button record: its seven fields in column order.
template <>
struct RecordCoding<NotificationButton> {
    static constexpr std::string_view tableName = NotificationButton::databaseTableName;
    static constexpr std::tuple fields{
        Field{"id", &NotificationButton::id_},
        Field{"buttonId", &NotificationButton::buttonId},
        Field{"title", &NotificationButton::title},
        Field{"visible", &NotificationButton::visible},
        Field{"notificationId", &NotificationButton::notificationId},
        Field{"actionKind", &NotificationButton::actionKind},
        Field{"userAction", &NotificationButton::userAction},
    };
    static NotificationButton blank() noexcept { return {}; }
};

}  // namespace notificationdb
