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

class JoinedRow;
class Row;

// A notification with its optional action button: the unit exchanged between host, updater
// and store. Two pairs are equal exactly when their notifications' ids are equal (two absent
// ids are equal; absent never equals present); nothing else takes part.
struct NOTIFICATIONDB_API NotificationModelInfo {
    // Key of the notification in a joined row, and of the button's scope.
    static constexpr std::string_view notificationKey = "notification";
    static constexpr std::string_view actionButtonKey = NotificationButton::databaseTableName;  // the button's

    // The pair of `notification` and its button, if any.
    NotificationModelInfo(NotificationModel notification, std::optional<NotificationButton> actionButton = std::nullopt)
        : notification(std::move(notification)), actionButton(std::move(actionButton)) {}

    // Reads a pair from one row of "notification" LEFT JOIN "notificationButton": the
    // notification from the row's base columns, the button from the scope "notificationButton"
    // (absent when the row has no such scope or all its columns are NULL). Throws
    // `RecordDecodingError` when either record cannot be read; no partial pair is made.
    // Both are the library's own: `Row` and `JoinedRow` belong to its private database layer.
    NOTIFICATIONDB_HIDDEN static NotificationModelInfo fromJoinedRow(const Row& row);
    // The same from the current row of a run whose column positions `row` holds, as a
    // constructor, so that a list can build its elements in place.
    NOTIFICATIONDB_HIDDEN explicit NotificationModelInfo(const JoinedRow& row);

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

// Text of a set of ids as it appears in messages: "[1, 2]", "[]".
NOTIFICATIONDB_API std::string describe(const NotificationIDs& ids);

}  // namespace notificationdb
