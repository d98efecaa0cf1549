#include "NotificationDatabase/NotificationDatabase.hpp"

#include "NotificationDatabase/Database/DatabasePool.hpp"
#include "NotificationDatabase/Database/JoinedRow.hpp"
#include "NotificationDatabase/Database/RecordPersistence.hpp"
#include "NotificationDatabase/DatabaseError.hpp"
#include "NotificationDatabase/NotificationDatabaseConfigurator.hpp"
#include "NotificationDatabase/Platform/DistributedNotificationCenter.hpp"
#include "NotificationDatabase/Platform/LogSanitizer.hpp"
#include "NotificationDatabase/Platform/MainQueue.hpp"
#include "NotificationDatabase/Platform/ProcessWide.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace notificationdb {

namespace {

constexpr auto kNoticeDelay = std::chrono::seconds(1);

// The joined read of a notification with its button; the button's columns form the scope
// "notificationButton" of each row.
constexpr std::string_view kJoinedSelect =
    "SELECT \"notification\".*, \"notificationButton\".* FROM \"notification\" "
    "LEFT JOIN \"notificationButton\" ON \"notificationButton\".\"notificationId\" = \"notification\".\"id\"";
constexpr std::string_view kNewestFirst = " ORDER BY \"notification\".\"createdDate\" DESC";

// Keyed statements are function statics: made on first use, also when a store is made during
// another file's static initialisation.
const StatementKey& fetchAllStatement() {
    static const StatementKey key(std::string(kJoinedSelect) + std::string(kNewestFirst));
    return key;
}

const StatementKey& fetchByKindStatement() {
    static const StatementKey key(std::string(kJoinedSelect) + " WHERE \"notification\".\"notificationKind\" = ?");
    return key;
}

// A statement that names a set of ids, `before` + "(ids)" + `after`. Up to 128 ids are bound as
// parameters of their own, numbered from `firstIndex`, in statements prepared for 1 to 8 ids and
// for every eighth count up to 128 (a smaller set repeats its last id to fill one). An empty or
// larger set is bound as one JSON array parameter, so that no count exceeds SQLite's limit on
// parameters and an empty set still runs the statement.
class IDSetStatement {
public:
    static constexpr std::size_t maximumBound = 128;

    IDSetStatement(std::string_view before, std::string_view after, int firstIndex) : firstIndex_(firstIndex) {
        for (std::size_t variant = 0; variant < variants_.size(); ++variant) {
            std::string sql(before);
            sql += '(';
            if (variant == 0) {
                sql += "SELECT value FROM json_each(?" + std::to_string(firstIndex) + ")";
            } else {
                for (std::size_t i = 0; i < slotCount(variant); ++i) {
                    if (i > 0) sql += ", ";
                    sql += '?' + std::to_string(firstIndex + static_cast<int>(i));
                }
            }
            sql += ')';
            sql += after;
            variants_[variant] = std::make_unique<StatementKey>(std::move(sql));
        }
    }

    // The statement for `ids` (`count` of them, in any order) with the ids bound.
    template <class IDs>
    CachedStatement bound(Connection& connection, const IDs& ids, std::size_t count) const {
        const std::size_t variant = count == 0 || count > maximumBound ? 0 : count <= 8 ? count : 7 + (count + 7) / 8;
        auto statement = connection.cachedStatement(*variants_[variant]);
        if (variant == 0) {
            statement->bind(firstIndex_, jsonArray(ids));
            return statement;
        }
        int index = firstIndex_;
        std::int64_t last = 0;
        for (const std::int64_t id : ids) {
            statement->bind(index++, id);
            last = id;
        }
        for (std::size_t i = count; i < slotCount(variant); ++i) statement->bind(index++, last);
        return statement;
    }

private:
    static std::size_t slotCount(std::size_t variant) noexcept { return variant <= 8 ? variant : 8 * (variant - 7); }

    template <class IDs>
    static std::string jsonArray(const IDs& ids) {
        std::string text = "[";
        char digits[24];
        for (const std::int64_t id : ids) {
            if (text.size() > 1) text += ',';
            text.append(digits, std::to_chars(digits, digits + sizeof digits, id).ptr);
        }
        text += ']';
        return text;
    }

    int firstIndex_;
    std::array<std::unique_ptr<StatementKey>, 24> variants_;
};

const IDSetStatement& fetchByIDsStatement() {
    static const IDSetStatement statement(std::string(kJoinedSelect) + " WHERE \"notification\".\"id\" IN ",
                                          kNewestFirst, 1);
    return statement;
}

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

const IDSetStatement& deleteNotificationsStatement() {
    static const IDSetStatement statement("DELETE FROM \"notification\" WHERE \"id\" IN ", "", 1);
    return statement;
}

const IDSetStatement& deleteButtonsStatement() {
    static const IDSetStatement statement("DELETE FROM \"notificationButton\" WHERE \"id\" IN ", "", 1);
    return statement;
}

void deleteByIDs(Connection& connection, const IDSetStatement& statement, const std::vector<std::int64_t>& ids) {
    if (ids.empty()) return;
    statement.bound(connection, ids, ids.size())->execute();
}

// Deletes the notifications and the buttons that `infos` name, each DELETE's failure dropped.
template <class Infos>
void deleteNamed(Connection& connection, const Infos& infos) {
    // Repeated ids would do no harm in the IN lists; a set of pairs names each notification once.
    std::vector<std::int64_t> notificationIDs;
    std::vector<std::int64_t> buttonIDs;
    notificationIDs.reserve(infos.size());
    buttonIDs.reserve(infos.size());
    for (const NotificationModelInfo& info : infos) {
        if (const auto& id = info.notification.id()) notificationIDs.push_back(*id);
        if (info.actionButton && info.actionButton->id()) buttonIDs.push_back(*info.actionButton->id());
    }
    // SQLite gathers an IN list into a b-tree first, which takes ids in order at less cost.
    std::sort(notificationIDs.begin(), notificationIDs.end());
    std::sort(buttonIDs.begin(), buttonIDs.end());
    runDroppingFailure(connection, [&] { deleteByIDs(connection, deleteNotificationsStatement(), notificationIDs); });
    runDroppingFailure(connection, [&] { deleteByIDs(connection, deleteButtonsStatement(), buttonIDs); });
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

// Every row of a joined read, each pair built in place in the list. The list starts with the
// room that the statement's previous run needed, and gives back what a much shorter run left.
std::vector<NotificationModelInfo> readJoined(Statement& statement) {
    std::vector<NotificationModelInfo> result;
    result.reserve(statement.previousRowCount());
    if (statement.step()) {
        const JoinedRow row(statement.row());
        do {
            result.emplace_back(row);
        } while (statement.step());
    }
    if (result.size() < result.capacity() / 2) result.shrink_to_fit();
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

// The four forms of a query with two optional parts, keyed once: `forms[first][second]`.
using FourForms = std::array<std::array<std::unique_ptr<StatementKey>, 2>, 2>;
template <class Build>
FourForms fourForms(Build build) {
    FourForms forms;
    for (const bool first : {false, true}) {
        for (const bool second : {false, true})
            forms[first][second] = std::make_unique<StatementKey>(build(first, second));
    }
    return forms;
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
            static const StatementKey count("SELECT COUNT(*) FROM \"notification\"");
            auto statement = connection.cachedStatement(count);
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
    auto statement = database.cachedStatement(*queries[hasCustomer][hasApp]);
    if (hasCustomer) statement->bind(1, *notification.customerId());
    statement->bind(2, rawValue(notification.notificationKind));
    statement->bind(3, notification.version);
    if (hasApp) statement->bind(4, *notification.appId);
    return findsNotification(*statement);
}

void NotificationDatabaseImpl::save(const NotificationModelInfo& notificationInfo) {
    try {
        database_->write([&notificationInfo](Connection& connection) {
            const NotificationModel& notification = notificationInfo.notification;
            if (const auto& id = notification.id()) {
                static const StatementKey stored("SELECT 1 FROM \"notification\" WHERE \"id\" = ?");
                auto exists = connection.cachedStatement(stored);
                exists->bind(1, *id);
                if (exists->step()) return;
            }
            if (contentDuplicate(notification, connection)) return;
            // No row holds the id (checked above, in this transaction), so saving it is an insert.
            const std::int64_t id = insertRow(connection, notification);
            if (!notificationInfo.actionButton) return;
            NotificationButton button = *notificationInfo.actionButton;
            button.notificationId = id;
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
            if (!ids) return readJoined(*connection.cachedStatement(fetchAllStatement()));
            return readJoined(*fetchByIDsStatement().bound(connection, *ids, ids->size()));
        });
    } catch (const std::exception& error) {
        logFailure("Unable to read wrapped notifications: ", error);
        return {};
    }
}

bool NotificationDatabaseImpl::containsVantro(const std::string& version) {
    try {
        return database_->read([&version](Connection& connection) {
            static const StatementKey query(findOneSQL({R"("version" = ?)"}));
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
            auto statement = connection.cachedStatement(*queries[appID.has_value()][version.has_value()]);
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
            static const IDSetStatement update("UPDATE \"notification\" SET \"status\" = ?1 WHERE \"id\" IN ", "", 2);
            auto statement = update.bound(connection, notificationIDs, notificationIDs.size());
            statement->bind(1, rawValue(status));
            statement->execute();
        });
    } catch (const std::exception& error) {
        logFailure("Unable to mark as read notification IDs: " + describe(notificationIDs) + ": ", error);
    }
}

void NotificationDatabaseImpl::updateButtonVisibility(const NotificationIDs& notificationIDs, bool isVisible) {
    try {
        database_->write([&](Connection& connection) {
            static const StatementKey update(
                "UPDATE \"notificationButton\" SET \"visible\" = ? WHERE \"notificationId\" = ?");
            // Taken on the first id, so that an empty set prepares nothing and a failure to
            // prepare ends the loop like any failing update.
            std::optional<CachedStatement> statement;
            for (const std::int64_t id : notificationIDs) {
                const bool updated = runDroppingFailure(connection, [&] {
                    if (!statement) {
                        statement.emplace(connection.cachedStatement(update));
                        (*statement)->bind(1, std::int64_t{isVisible ? 1 : 0});
                    }
                    (*statement)->bind(2, id);
                    (*statement)->execute();
                    (*statement)->rewind();
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
            static const StatementKey deleteNotifications("DELETE FROM \"notification\"");
            static const StatementKey deleteButtons("DELETE FROM \"notificationButton\"");
            runDroppingFailure(connection, [&] { connection.cachedStatement(deleteNotifications)->execute(); });
            runDroppingFailure(connection, [&] { connection.cachedStatement(deleteButtons)->execute(); });
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
                auto statement = connection.cachedStatement(fetchByKindStatement());
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
