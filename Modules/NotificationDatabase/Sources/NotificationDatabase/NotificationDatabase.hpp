#pragma once

#include <NotificationDatabase/Export.hpp>
#include <NotificationDatabase/Extensions/NotificationName.hpp>
#include <NotificationDatabase/NotificationDatabaseConfig.hpp>
#include <NotificationDatabase/NotificationDatabaseProtocols.hpp>
#include <NotificationDatabase/Platform/DistributedNotificationCenter.hpp>
#include <NotificationDatabase/Platform/Logger.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace notificationdb {

class DatabaseObservation;
class DatabasePool;
class NotificationDatabaseConfigurator;

// The services a store uses; each one left empty is the process-wide one.
struct NotificationDatabaseServices {
    // The parent of the store's logger "notifications-database"; `Logger::module()` when empty.
    std::shared_ptr<Logger> logger;
    // Runs a job on the host's main queue not before its deadline: where the change notices are
    // posted from. `MainQueue::main()` when empty.
    MainQueue::Scheduler mainQueue;
    // Where the change notices go; `DistributedNotificationCenter::defaultCenter()` of the moment
    // of each post when empty.
    std::shared_ptr<DistributedNotificationCenter> noticeCenter;
};

// The notification store over one SQLite file. Every operation runs on the caller's thread;
// writes of one store are serialised, reads run alongside them. After each committed change of
// the table "notification" the store schedules, 1.0 s later on the main queue, one post of
// `databaseUpdated()` through the notice center.
class NOTIFICATIONDB_API NotificationDatabaseImpl final
    : public NotificationDatabaseProtocol,
      public std::enable_shared_from_this<NotificationDatabaseImpl> {
public:
    // Opens the pool on `config`, creates missing tables and starts observing, with `services`.
    // Throws `DatabaseError` when the file cannot be opened or set up; nothing is logged then.
    static std::shared_ptr<NotificationDatabaseImpl> create(const NotificationDatabaseConfig& config,
                                                            NotificationDatabaseServices services = {});

    // Posts at once, in commit order, every change notice that stores of this process have
    // scheduled and not yet posted (their scheduled jobs then post nothing), and returns once the
    // notices are handed to the bus or, after 2 s, dropped with one logged message. For a process
    // about to exit before its main queue runs them. Safe from any thread.
    static void postPendingNotices();

    ~NotificationDatabaseImpl() override;
    NotificationDatabaseImpl(const NotificationDatabaseImpl&) = delete;
    NotificationDatabaseImpl& operator=(const NotificationDatabaseImpl&) = delete;

    void save(const NotificationModelInfo& notificationInfo) override;
    std::vector<NotificationModelInfo> fetchNotifications(const std::optional<NotificationIDs>& ids) override;
    std::int64_t notificationsCount() override;
    void updateStatus(const NotificationIDs& notificationIDs, NotificationStatus status) override;
    void updateButtonVisibility(const NotificationIDs& notificationIDs, bool isVisible) override;
    void deleteNotifications(const NotificationModelInfoSet& notifications) override;
    void deleteAllNotifications(NotificationKind kind) override;
    void deleteAll() override;
    bool containsVantro(const std::string& version) override;
    bool containsNotification(NotificationKind type, const std::string& customer, std::optional<std::int64_t> appID,
                              const std::optional<std::string>& version) override;

private:
    // Only `create` builds a store, so that every store observes its writes.
    NOTIFICATIONDB_HIDDEN NotificationDatabaseImpl(const NotificationDatabaseConfig& config,
                                                   NotificationDatabaseServices services);

    NOTIFICATIONDB_HIDDEN void setupDatabaseObserver();
    NOTIFICATIONDB_HIDDEN void logFailure(std::string_view text, const std::exception& error) const noexcept;

    NotificationDatabaseServices services_;
    std::shared_ptr<Logger> logger_;
    std::unique_ptr<NotificationDatabaseConfigurator> configurator_;
    std::unique_ptr<DatabasePool> database_;
    std::unique_ptr<DatabaseObservation> databaseCancellable_;
};

}  // namespace notificationdb
