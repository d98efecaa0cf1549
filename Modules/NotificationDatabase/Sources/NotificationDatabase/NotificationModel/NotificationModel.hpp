#pragma once

#include <NotificationDatabase/Export.hpp>
#include <NotificationDatabase/RecordCoding/RecordCoding.hpp>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace notificationdb {

// One stored in-app notification: a row of the table "notification". A plain value; copies are
// independent. Every field is readable; all but `id` and `customerId` are public and
// assignable, those two are fixed at construction (the insert sets `id`).
class NOTIFICATIONDB_API NotificationModel {
public:
    // Where the user is with the notification; stored as its raw value.
    enum class NotificationStatus : std::int64_t { new_ = 0, shown = 1, read = 2 };
    // What the notification is about; stored as its raw value.
    enum class NotificationKind : std::int64_t { default_ = 0, newApp = 1, appUpdate = 2, vantroUpdate = 3, ai = 4 };

    static constexpr std::string_view databaseTableName = "notification";  // the table of the notifications
    // A well-known value of `analyticsTag` offered to hosts; the library never compares with it.
    static constexpr std::string_view unusedAppsAnalyticsTag = "unusedApps";

    // Takes all twelve fields in column order; nothing is defaulted, validated or normalised.
    NotificationModel(std::optional<std::int64_t> id, std::optional<std::string> customerId, Timestamp createdDate,
                      std::string version, std::string analyticsTag, std::optional<std::string> title,
                      std::optional<std::string> body, std::optional<std::string> bannerUrl, bool isMarketing,
                      std::optional<std::int64_t> appId, NotificationStatus status, NotificationKind notificationKind);

    // The row id; absent on a record that was never stored.
    const std::optional<std::int64_t>& id() const noexcept { return id_; }
    // The service's identifier of the customer the notification was addressed to.
    const std::optional<std::string>& customerId() const noexcept { return customerId_; }

    Timestamp createdDate;                 // when the service created it; pruning counts its age from here
    std::string version;                   // the version it is about (of an app, or of the client)
    std::string analyticsTag;              // passed back to the host's analytics, never interpreted
    std::optional<std::string> title;      // the headline shown
    std::optional<std::string> body;       // the text shown
    std::optional<std::string> bannerUrl;  // kept as text, never parsed
    bool isMarketing;                      // whether it is marketing
    std::optional<std::int64_t> appId;     // the catalogue app it is about, if any
    NotificationStatus status;             // where the user is with it
    NotificationKind notificationKind;     // what it is about

private:
    friend struct RecordCoding<NotificationModel>;
    // Every field absent, empty, false or zero: the start of a record read in place.
    NotificationModel() noexcept : isMarketing(false), status(), notificationKind() {}

    std::optional<std::int64_t> id_;
    std::optional<std::string> customerId_;
};

using NotificationStatus = NotificationModel::NotificationStatus;
using NotificationKind = NotificationModel::NotificationKind;

template <>
struct EnumerationCases<NotificationStatus> {
    static constexpr std::string_view typeName = "NotificationStatus";
    static constexpr std::array<std::string_view, 3> names{"new", "shown", "read"};
};
template <>
struct EnumerationCases<NotificationKind> {
    static constexpr std::string_view typeName = "NotificationKind";
    static constexpr std::array<std::string_view, 5> names{"default", "newApp", "appUpdate", "vantroUpdate", "ai"};
};

// Lenient construction, always a case: 1 is `shown`, 2 is `read`, anything else `new_`.
constexpr NotificationStatus makeNotificationStatus(std::int64_t value) noexcept {
    return value == 1 || value == 2 ? static_cast<NotificationStatus>(value) : NotificationStatus::new_;
}
// Lenient construction, always a case: 0...4 give their case, anything else `default_`.
constexpr NotificationKind makeNotificationKind(std::int64_t value) noexcept {
    return fromRawValue<NotificationKind>(value).value_or(NotificationKind::default_);
}

// The keyed coding of the notification record: its twelve fields in column order.
template <>
struct RecordCoding<NotificationModel> {
    static constexpr std::string_view tableName = NotificationModel::databaseTableName;
    static constexpr std::tuple fields{
        Field{"id", &NotificationModel::id_},
        Field{"customerId", &NotificationModel::customerId_},
        Field{"createdDate", &NotificationModel::createdDate},
        Field{"version", &NotificationModel::version},
        Field{"analyticsTag", &NotificationModel::analyticsTag},
        Field{"title", &NotificationModel::title},
        Field{"body", &NotificationModel::body},
        Field{"bannerUrl", &NotificationModel::bannerUrl},
        Field{"isMarketing", &NotificationModel::isMarketing},
        Field{"appId", &NotificationModel::appId},
        Field{"status", &NotificationModel::status},
        Field{"notificationKind", &NotificationModel::notificationKind},
    };
    static NotificationModel blank() noexcept { return {}; }
};

}  // namespace notificationdb
