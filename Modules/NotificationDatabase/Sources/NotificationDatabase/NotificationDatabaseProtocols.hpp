#pragma once

#include <NotificationDatabase/Export.hpp>

#include <NotificationDatabase/NotificationModel/NotificationModelInfo.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace notificationdb {

// Everything a host can ask of a notification store. No operation reports a failure to its
// caller: a failing operation leaves the store usable, logs where its contract says so, and
// returns a neutral result.
class NOTIFICATIONDB_API NotificationDatabaseProtocol {
public:
    virtual ~NotificationDatabaseProtocol() = default;

    // Stores the notification and its button in one transaction, unless a notification with
    // the same id or the same content key (customer, kind, version, app) is stored already.
    virtual void save(const NotificationModelInfo& notificationInfo) = 0;
    // The stored notifications with their buttons, newest first: all of them when `ids` is
    // absent, none for an empty set. One entry per joined row. Empty on failure.
    virtual std::vector<NotificationModelInfo> fetchNotifications(const std::optional<NotificationIDs>& ids) = 0;
    // The number of stored notifications; 0 on failure.
    virtual std::int64_t notificationsCount() = 0;
    // Sets the status of these notifications.
    virtual void updateStatus(const NotificationIDs& notificationIDs, NotificationStatus status) = 0;
    // Shows or hides the buttons of these notifications (ids are notification ids).
    virtual void updateButtonVisibility(const NotificationIDs& notificationIDs, bool isVisible) = 0;
    // Deletes these notifications (by id) and the buttons they name (by button id).
    virtual void deleteNotifications(const NotificationModelInfoSet& notifications) = 0;
    // Deletes every notification of `kind` with its buttons.
    virtual void deleteAllNotifications(NotificationKind kind) = 0;
    // Empties both tables.
    virtual void deleteAll() = 0;
    // Whether a notification of any kind is stored with exactly this version; true on failure.
    virtual bool containsVantro(const std::string& version) = 0;
    // Whether a notification of `type` is stored for `customer`, narrowed by `appID` and
    // `version` when given; false on failure.
    virtual bool containsNotification(NotificationKind type, const std::string& customer,
                                      std::optional<std::int64_t> appID, const std::optional<std::string>& version) = 0;
};

// What the user did with notifications.
class NOTIFICATIONDB_API NotificationInteractor {
public:
    virtual ~NotificationInteractor() = default;

    // Sets the status of these notifications.
    virtual void updateStatus(const NotificationIDs& notificationIDs, NotificationStatus status) = 0;
    // Shows or hides the buttons of these notifications (ids are notification ids).
    virtual void updateButtonVisibility(const NotificationIDs& notificationIDs, bool isVisible) = 0;
};

// Takes batches of notifications from the service and keeps the stored set pruned.
class NOTIFICATIONDB_API NotificationUpdater : public NotificationInteractor {
public:
    // Saves every distinct notification of the batch, then prunes; an empty batch does nothing.
    virtual void receive(const std::vector<NotificationModelInfo>& notifications) = 0;
    // Deletes notifications 30 days old or older and all but the 100 newest of each customer.
    virtual void cleanUp() = 0;
};

// The reading side of a store, for processes that only show notifications. No type of the
// library implements it; a host adapts its own store or a read-only `NotificationDatabaseImpl`.
class NOTIFICATIONDB_API NotificationReadable {
public:
    virtual ~NotificationReadable() = default;

    // As `NotificationDatabaseProtocol::fetchNotifications`.
    virtual std::vector<NotificationModelInfo> fetchNotifications(const std::optional<NotificationIDs>& ids) = 0;
    // As `NotificationDatabaseProtocol::notificationsCount`.
    virtual std::int64_t notificationsCount() = 0;
};

}  // namespace notificationdb
