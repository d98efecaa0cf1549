#include "NotificationDatabase/NotificationDatabase.hpp"

#include "NotificationDatabase/Database/DatabasePool.hpp"
#include "NotificationDatabase/Database/RecordPersistence.hpp"
#include "NotificationDatabase/DatabaseError.hpp"
#include "NotificationDatabase/NotificationDatabaseConfigurator.hpp"
#include "NotificationDatabase/Platform/DistributedNotificationCenter.hpp"
#include "NotificationDatabase/Platform/LogSanitizer.hpp"
#include "NotificationDatabase/Platform/MainQueue.hpp"
#include "NotificationDatabase/Platform/ProcessWide.hpp"

#include <array>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <mutex>
#include <set>
#include <string>
#include <utility>

namespace notificationdb {

namespace {

constexpr auto kNoticeDelay = std::chrono::seconds(1);

// The joined read of a notification with its button; the button's columns form the scope
// "notificationButton" of each row.
constexpr std::string_view kJoinedSelect =
    "SELECT \"notification\".*, \"notificationButton\".* FROM \"notification\" "
    "LEFT JOIN \"notificationButton\" ON \"notificationButton\".\"notificationId\" = \"notification\".\"id\"";

const std::string kFetchAll = std::string(kJoinedSelect) + " ORDER BY \"notification\".\"createdDate\" DESC";
// A set of ids is bound as one JSON array parameter, so that no number of ids can exceed
// SQLite's limit on parameters and the statement is prepared once.
const std::string kFetchByIDs = std::string(kJoinedSelect) +
                                " WHERE \"notification\".\"id\" IN (SELECT value FROM json_each(?))"
                                " ORDER BY \"notification\".\"createdDate\" DESC";
const std::string kFetchByKind = std::string(kJoinedSelect) + " WHERE \"notification\".\"notificationKind\" = ?";

// Runs one statement whose failure the operation drops without a message. A failure that
// ended the whole transaction (SQLite rolls back on some I/O and memory errors) cannot be
// dropped: the statements after it would run outside any transaction.
template <class Statement>
bool runDroppingFailure(Connection& connection, Statement&& statement) {
    try {
        statement();
        return true;
    } catch (const DatabaseError&) {
        if (!connection.isInsideTransaction()) throw;
        return false;
    }
}

void deleteByIDs(Connection& connection, std::string_view sql, const NotificationIDs& ids) {
    if (ids.empty()) return;
    auto statement = connection.cachedStatement(sql);
    // The ids' description, "[1, 2]", is a JSON array.
    statement->bind(1, describe(ids));
    statement->execute();
}

// Deletes the notifications and the buttons that `infos` name, each DELETE's failure dropped.
template <class Infos>
void deleteNamed(Connection& connection, const Infos& infos) {
    NotificationIDs notificationIDs;
    NotificationIDs buttonIDs;
    for (const NotificationModelInfo& info : infos) {
        if (const auto& id = info.notification.id()) notificationIDs.insert(*id);
        if (info.actionButton && info.actionButton->id()) buttonIDs.insert(*info.actionButton->id());
    }
    runDroppingFailure(connection, [&] {
        deleteByIDs(connection, "DELETE FROM \"notification\" WHERE \"id\" IN (SELECT value FROM json_each(?))",
                    notificationIDs);
    });
    runDroppingFailure(connection, [&] {
        deleteByIDs(connection, "DELETE FROM \"notificationButton\" WHERE \"id\" IN (SELECT value FROM json_each(?))",
                    buttonIDs);
    });
}

// The change notices of this process that are scheduled and not yet posted, numbered in commit
// order. A notice goes out when its job comes due or when `postPendingNotices()` runs, whichever
// is first, and only then.
class NoticeLedger {
public:
    // One for the process; a job may come due during static destruction.
    static NoticeLedger& shared() {
        return detail::neverDestroyed([] { return NoticeLedger(); });
    }

    // Called after each committed change; returns the notice's number.
    std::uint64_t add() {
        std::lock_guard lock(mutex_);
        pending_.insert(++last_);
        return last_;
    }
    // For a notice whose job could not be scheduled.
    void remove(std::uint64_t number) {
        std::lock_guard lock(mutex_);
        pending_.erase(number);
    }
    // Posts every pending notice up to `number`, so that notices keep commit order even when
    // their jobs run out of order.
    void postThrough(std::uint64_t number) {
        // Held while posting, so that a caller returns only once its notices are out.
        std::lock_guard lock(mutex_);
        while (!pending_.empty() && *pending_.begin() <= number) {
            pending_.erase(pending_.begin());
            DistributedNotificationCenter::defaultCenter()->post(databaseUpdated());
        }
    }
    void postAll() { postThrough(std::numeric_limits<std::uint64_t>::max()); }

private:
    std::mutex mutex_;
    std::set<std::uint64_t> pending_;
    std::uint64_t last_ = 0;
};

std::vector<NotificationModelInfo> readJoined(Statement& statement) {
    std::vector<NotificationModelInfo> result;
    while (statement.step()) result.emplace_back(statement.row());
    return result;
}

// SELECT * FROM "notification" WHERE <the non-empty terms, joined with AND> LIMIT 1
std::string findOneSQL(std::initializer_list<std::string_view> terms) {
    std::string sql = R"(SELECT * FROM "notification" WHERE )";
    bool first = true;
    for (const std::string_view term : terms) {
        if (term.empty()) continue;
        if (!first) sql += " AND ";
        sql += term;
        first = false;
    }
    sql += " LIMIT 1";
    return sql;
}

// The four forms of a query with two optional parts, built once: `forms[first][second]`.
template <class Build>
std::array<std::array<std::string, 2>, 2> fourForms(Build build) {
    return {{{build(false, false), build(false, true)}, {build(true, false), build(true, true)}}};
}

// Whether the query finds a row, which must also read as a notification.
bool findsNotification(Statement& statement) {
    if (!statement.step()) return false;
    (void)readRecord<NotificationModel>(statement.row());
    return true;
}

}  // namespace

std::shared_ptr<NotificationDatabaseImpl> NotificationDatabaseImpl::create(const NotificationDatabaseConfig& config) {
    std::shared_ptr<NotificationDatabaseImpl> store(new NotificationDatabaseImpl(config));
    store->setupDatabaseObserver();
    return store;
}

NotificationDatabaseImpl::NotificationDatabaseImpl(const NotificationDatabaseConfig& config)
    : logger_(Logger::module()->subLogger("notifications-database", {}, true)),
      configurator_(std::make_unique<NotificationDatabaseConfigurator>(config)),
      database_(std::make_unique<DatabasePool>(config.storageURL(), config.configuration())) {
    configurator_->configure(*database_);
}

void NotificationDatabaseImpl::postPendingNotices() {
    NoticeLedger::shared().postAll();
}

NotificationDatabaseImpl::~NotificationDatabaseImpl() {
    // Stop observing before the pool goes.
    databaseCancellable_.reset();
}

void NotificationDatabaseImpl::setupDatabaseObserver() {
    std::weak_ptr<NotificationDatabaseImpl> weakSelf = weak_from_this();
    databaseCancellable_ = database_->observe(
        {std::string(NotificationModel::databaseTableName)},
        // Holds nothing: a post scheduled before the store goes away is still made.
        [] {
            auto& ledger = NoticeLedger::shared();
            const std::uint64_t notice = ledger.add();
            try {
                MainQueue::main().asyncAfter(kNoticeDelay, [notice] { NoticeLedger::shared().postThrough(notice); });
            } catch (...) {
                ledger.remove(notice);
                throw;
            }
        },
        [weakSelf](const std::exception& error) {
            if (auto self = weakSelf.lock()) self->logFailure("Database observation error: ", error);
        });
}

void NotificationDatabaseImpl::logFailure(std::string_view text, const std::exception& error) const noexcept {
    try {
        logger_->log(LogLevel::error, std::string(text) + LogSanitizer::sanitizeError(error));
    } catch (...) {
        // Logging must never turn a handled failure into a crash.
    }
}

std::int64_t NotificationDatabaseImpl::notificationsCount() {
    try {
        return database_->read([](Connection& connection) {
            auto statement = connection.cachedStatement("SELECT COUNT(*) FROM \"notification\"");
            statement->step();
            return statement->row().int64(0);
        });
    } catch (const std::exception& error) {
        logFailure("Unable to fetch notifications count: ", error);
        return 0;
    }
}

bool NotificationDatabaseImpl::contentDuplicate(const NotificationModel& notification, Connection& database) {
    if (notification.notificationKind == NotificationKind::default_) return false;
    const bool hasCustomer = notification.customerId().has_value();
    const bool hasApp = notification.appId.has_value();
    static const auto queries = fourForms([](bool customer, bool app) {
        return findOneSQL({customer ? R"("customerId" = ?1)" : R"("customerId" IS NULL)", R"("notificationKind" = ?2)",
                           R"("version" = ?3)", app ? R"("appId" = ?4)" : ""});
    });
    auto statement = database.cachedStatement(queries[hasCustomer][hasApp]);
    if (hasCustomer) statement->bind(1, *notification.customerId());
    statement->bind(2, rawValue(notification.notificationKind));
    statement->bind(3, notification.version);
    if (hasApp) statement->bind(4, *notification.appId);
    return findsNotification(*statement);
}

void NotificationDatabaseImpl::save(const NotificationModelInfo& notificationInfo) {
    try {
        database_->write([&notificationInfo](Connection& connection) {
            NotificationModel notification = notificationInfo.notification;
            if (const auto& id = notification.id()) {
                auto exists = connection.cachedStatement("SELECT 1 FROM \"notification\" WHERE \"id\" = ?");
                exists->bind(1, *id);
                if (exists->step()) return;
            }
            if (contentDuplicate(notification, connection)) return;
            // No row holds the id (checked above, in this transaction), so saving it is an insert.
            insertRecord(connection, notification);
            if (!notificationInfo.actionButton) return;
            NotificationButton button = *notificationInfo.actionButton;
            button.notificationId = notification.id();
            saveRecord(connection, button);
        });
    } catch (const std::exception& error) {
        logFailure("Unable to save wrapped notification: ", error);
    }
}

std::vector<NotificationModelInfo> NotificationDatabaseImpl::fetchNotifications(
    const std::optional<NotificationIDs>& ids) {
    try {
        return database_->read([&ids](Connection& connection) {
            if (!ids) {
                auto statement = connection.cachedStatement(kFetchAll);
                return readJoined(*statement);
            }
            auto statement = connection.cachedStatement(kFetchByIDs);
            statement->bind(1, describe(*ids));
            return readJoined(*statement);
        });
    } catch (const std::exception& error) {
        logFailure("Unable to read wrapped notifications: ", error);
        return {};
    }
}

bool NotificationDatabaseImpl::containsVantro(const std::string& version) {
    try {
        return database_->read([&version](Connection& connection) {
            static const std::string query = findOneSQL({R"("version" = ?)"});
            auto statement = connection.cachedStatement(query);
            statement->bind(1, version);
            return findsNotification(*statement);
        });
    } catch (const std::exception&) {
        // Answering true keeps a host from offering an update it cannot check.
        return true;
    }
}

bool NotificationDatabaseImpl::containsNotification(NotificationKind type, const std::string& customer,
                                                    std::optional<std::int64_t> appID,
                                                    const std::optional<std::string>& version) {
    try {
        return database_->read([&](Connection& connection) {
            static const auto queries = fourForms([](bool app, bool withVersion) {
                return findOneSQL({R"("customerId" = ?1)", R"("notificationKind" = ?2)", app ? R"("appId" = ?3)" : "",
                                   withVersion ? R"("version" = ?4)" : ""});
            });
            auto statement = connection.cachedStatement(queries[appID.has_value()][version.has_value()]);
            statement->bind(1, customer);
            statement->bind(2, rawValue(type));
            if (appID) statement->bind(3, *appID);
            if (version) statement->bind(4, *version);
            return findsNotification(*statement);
        });
    } catch (const std::exception&) {
        return false;
    }
}

void NotificationDatabaseImpl::updateStatus(const NotificationIDs& notificationIDs, NotificationStatus status) {
    try {
        database_->write([&](Connection& connection) {
            auto statement = connection.cachedStatement(
                "UPDATE \"notification\" SET \"status\" = ? WHERE \"id\" IN (SELECT value FROM json_each(?))");
            statement->bind(1, rawValue(status));
            statement->bind(2, describe(notificationIDs));
            statement->execute();
        });
    } catch (const std::exception& error) {
        logFailure("Unable to mark as read notification IDs: " + describe(notificationIDs) + ": ", error);
    }
}

void NotificationDatabaseImpl::updateButtonVisibility(const NotificationIDs& notificationIDs, bool isVisible) {
    try {
        database_->write([&](Connection& connection) {
            for (const std::int64_t id : notificationIDs) {
                const bool updated = runDroppingFailure(connection, [&] {
                    auto statement = connection.cachedStatement(
                        "UPDATE \"notificationButton\" SET \"visible\" = ? WHERE \"notificationId\" = ?");
                    statement->bind(1, std::int64_t{isVisible ? 1 : 0});
                    statement->bind(2, id);
                    statement->execute();
                });
                // The first failing id ends the loop; the updates before it commit.
                if (!updated) break;
            }
        });
    } catch (const std::exception& error) {
        logFailure("Unable to change button visibility for notification IDs: " + describe(notificationIDs) + ": ",
                   error);
    }
}

void NotificationDatabaseImpl::deleteNotifications(const NotificationModelInfoSet& notifications) {
    try {
        database_->write([&](Connection& connection) { deleteNamed(connection, notifications); });
    } catch (const std::exception& error) {
        logFailure("Unable to reset notifications database: ", error);
    }
}

void NotificationDatabaseImpl::deleteAll() {
    try {
        database_->write([](Connection& connection) {
            runDroppingFailure(connection,
                               [&] { connection.cachedStatement("DELETE FROM \"notification\"")->execute(); });
            runDroppingFailure(connection,
                               [&] { connection.cachedStatement("DELETE FROM \"notificationButton\"")->execute(); });
        });
    } catch (const std::exception& error) {
        logFailure("Unable to reset notification database: ", error);
    }
}

void NotificationDatabaseImpl::deleteAllNotifications(NotificationKind kind) {
    try {
        database_->write([kind](Connection& connection) {
            std::vector<NotificationModelInfo> rows;
            {
                auto statement = connection.cachedStatement(kFetchByKind);
                statement->bind(1, rawValue(kind));
                rows = readJoined(*statement);
            }
            deleteNamed(connection, rows);
        });
    } catch (const std::exception& error) {
        logFailure("Unable to delete all notification with kind " + std::to_string(rawValue(kind)) + ": ", error);
    }
}

}  // namespace notificationdb
