#pragma once

#include <NotificationDatabase/Export.hpp>
#include <NotificationDatabase/NotificationModel/NotificationButtonModel.hpp>
#include <NotificationDatabase/NotificationModel/NotificationModel.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>

namespace notificationdb {

// A notification with its optional action button: the unit exchanged between host, updater
// and store. Two pairs are equal exactly when their notifications' ids are equal (two absent
// ids are equal; absent never equals present); nothing else takes part.
struct NOTIFICATIONDB_API NotificationModelInfo {
    // The keys of the two records in keyed formats: the notification's, and the button's, which is
    // the button table's name.
    static constexpr std::string_view notificationKey = "notification";
    static constexpr std::string_view actionButtonKey = NotificationButton::databaseTableName;  // the button's

    // The pair of `notification` and its button, if any.
    NotificationModelInfo(NotificationModel notification, std::optional<NotificationButton> actionButton)
        : notification(std::move(notification)), actionButton(std::move(actionButton)) {}
    // A notification without button.
    // @{
    NotificationModelInfo(const NotificationModel& notification)
        : notification(notification) {}                               // NOLINT(google-explicit-constructor)
    NotificationModelInfo(NotificationModel&& notification) noexcept  // NOLINT(google-explicit-constructor)
        : notification(std::move(notification)) {}
    // @}

    friend bool operator==(const NotificationModelInfo& lhs, const NotificationModelInfo& rhs) noexcept {
        return lhs.notification.id() == rhs.notification.id();
    }

    NotificationModel notification;                  // the notification; its id alone makes the pair's identity
    std::optional<NotificationButton> actionButton;  // its button; absent when it has none
};

// A set of notification ids: distinct ids, yielded in ascending order.
using NotificationIDs = std::set<std::int64_t>;

}  // namespace notificationdb

// Fed the notification's id alone (presence marker, then the value), so that it agrees with
// equality and a set keeps one entry per notification id.
template <>
struct NOTIFICATIONDB_API std::hash<notificationdb::NotificationModelInfo> {
    std::size_t operator()(const notificationdb::NotificationModelInfo& info) const noexcept;
};

namespace notificationdb {

// A set of pairs, one per notification id (see the equality above).
using NotificationModelInfoSet = std::unordered_set<NotificationModelInfo>;

}  // namespace notificationdb
