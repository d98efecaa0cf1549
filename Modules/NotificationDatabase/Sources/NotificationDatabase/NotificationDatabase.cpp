#include "NotificationDatabase/NotificationDatabase.hpp"

#include "NotificationDatabase/ChangeNotices.hpp"
#include "NotificationDatabase/Database/DatabaseError.hpp"
#include "NotificationDatabase/Database/DatabasePool.hpp"
#include "NotificationDatabase/JoinedRow.hpp"
#include "NotificationDatabase/NotificationDatabaseConfigurator.hpp"
#include "NotificationDatabase/Platform/LogSanitizer.hpp"
#include "NotificationDatabase/RecordCoding/RowCoding.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace notificationdb {

namespace {

// A statement that names a set of ids: `before` + "(ids)" + `after`. Up to 128 ids are bound as
// parameters of their own, numbered from `first`, in the form prepared for the next power of two
// of their count (the last id repeated to fill it: an IN list ignores repeats); an empty or a
// larger set is bound as one JSON array that json_each turns back into rows. So each statement has
// at most nine forms, and small sets, the common ones, skip the JSON.
class IDSetStatement {
public:
    IDSetStatement(std::string_view before, std::string_view after, int first) : first_(first) {
        forms_[0] =
            std::string(before) + "(SELECT value FROM json_each(?" + std::to_string(first) + "))" + std::string(after);
        for (std::size_t form = 1; form < forms_.size(); ++form) {
            std::string sql(before);
            for (std::size_t i = 0; i < slots(form); ++i)
                sql += (i == 0 ? "(?" : ", ?") + std::to_string(first + int(i));
            forms_[form] = sql + ")" + std::string(after);
        }
    }

    // The statement for `ids` (any range of them, `count` in all), with the ids bound.
    template <class IDs>
    CachedStatement bound(Connection& connection, const IDs& ids, std::size_t count) const {
        std::size_t form = 0;
        if (count > 0 && count <= slots(forms_.size() - 1)) {
            form = 1;
            while (slots(form) < count) ++form;
        }
        auto statement = connection.cachedStatement(forms_[form]);
        if (form == 0) {
            statement->bind(first_, jsonArray(ids));
            return statement;
        }
        int index = first_;
        std::int64_t last = 0;
        for (const std::int64_t id : ids) statement->bind(index++, last = id);
        while (index < first_ + int(slots(form))) statement->bind(index++, last);
        return statement;
    }

private:
    static constexpr std::size_t slots(std::size_t form) noexcept { return std::size_t{1} << (form - 1); }

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

    std::array<std::string, 9> forms_;
    int first_;
};

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

// Deletes the notifications and the buttons that `infos` name, each DELETE's failure dropped.
template <class Infos>
void deleteNamed(Connection& connection, const Infos& infos) {
    // Repeated ids would do no harm; a set of pairs names each notification once.
    std::vector<std::int64_t> notificationIDs;
    std::vector<std::int64_t> buttonIDs;
    for (const NotificationModelInfo& info : infos) {
        if (const auto& id = info.notification.id()) notificationIDs.push_back(*id);
        if (info.actionButton && info.actionButton->id()) buttonIDs.push_back(*info.actionButton->id());
    }
    // SQLite gathers the ids into a b-tree first, which takes them in order at less cost.
    std::sort(notificationIDs.begin(), notificationIDs.end());
    std::sort(buttonIDs.begin(), buttonIDs.end());
    static const IDSetStatement deleteNotifications(R"(DELETE FROM "notification" WHERE "id" IN )", "", 1);
    static const IDSetStatement deleteButtons(R"(DELETE FROM "notificationButton" WHERE "id" IN )", "", 1);
    const auto deleteByID = [&connection](const IDSetStatement& statement, const std::vector<std::int64_t>& ids) {
        if (!ids.empty()) statement.bound(connection, ids, ids.size())->execute();
    };
    runDroppingFailure(connection, [&] { deleteByID(deleteNotifications, notificationIDs); });
    runDroppingFailure(connection, [&] { deleteByID(deleteButtons, buttonIDs); });
}

// Whether the query finds a row, which must also read as a notification.
bool findsNotification(Statement& statement) {
    if (!statement.step()) return false;
    (void)readRecord<NotificationModel>(statement.row());
    return true;
}

// Whether a notification with the content key of `notification` is stored: the same customer
// (none, when it has none), kind and version, and the same app when it names one. A `default_`
// notification is never a duplicate.
bool contentDuplicate(const NotificationModel& notification, Connection& connection) {
    if (notification.notificationKind == NotificationKind::default_) return false;
    auto statement = connection.cachedStatement(
        R"(SELECT * FROM "notification" WHERE "customerId" IS ?1 AND "notificationKind" = ?2 AND "version" = ?3)"
        R"( AND (?4 IS NULL OR "appId" = ?4) LIMIT 1)");
    statement->bind(1, notification.customerId());
    statement->bind(2, rawValue(notification.notificationKind));
    statement->bindNoCopy(3, notification.version);
    statement->bind(4, notification.appId);
    return findsNotification(*statement);
}

// Text of a set of ids as it appears in messages: "[1, 2]", "[]".
std::string describe(const NotificationIDs& ids) {
    std::string text = "[";
    for (const std::int64_t id : ids) {
        if (text.size() > 1) text += ", ";
        text += std::to_string(id);
    }
    text += ']';
    return text;
}

}  // namespace

std::shared_ptr<NotificationDatabaseImpl> NotificationDatabaseImpl::create(const NotificationDatabaseConfig& config,
                                                                           NotificationDatabaseServices services) {
    std::shared_ptr<NotificationDatabaseImpl> store(new NotificationDatabaseImpl(config, std::move(services)));
    store->setupDatabaseObserver();
    return store;
}

NotificationDatabaseImpl::NotificationDatabaseImpl(const NotificationDatabaseConfig& config,
                                                   NotificationDatabaseServices services)
    : services_(std::move(services)),
      logger_((services_.logger ? services_.logger : Logger::module())->subLogger("notifications-database", {}, true)),
      configurator_(std::make_unique<NotificationDatabaseConfigurator>(config)),
      database_(std::make_unique<DatabasePool>(config.storageURL(), config.configuration())) {
    configurator_->configure(*database_);
}

void NotificationDatabaseImpl::postPendingNotices() {
    ChangeNotices::postAll();
}

NotificationDatabaseImpl::~NotificationDatabaseImpl() {
    // Stop observing before the pool goes.
    databaseCancellable_.reset();
}

void NotificationDatabaseImpl::setupDatabaseObserver() {
    std::weak_ptr<NotificationDatabaseImpl> weakSelf = weak_from_this();
    databaseCancellable_ = database_->observe(
        {std::string(NotificationModel::databaseTableName)},
        // Holds the services alone, not the store: a post scheduled before the store goes away is
        // still made.
        [mainQueue = services_.mainQueue, center = services_.noticeCenter] {
            ChangeNotices::schedule(mainQueue, center);
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
            auto statement = connection.cachedStatement(R"(SELECT COUNT(*) FROM "notification")");
            statement->step();
            return statement->row().int64(0);
        });
    } catch (const std::exception& error) {
        logFailure("Unable to fetch notifications count: ", error);
        return 0;
    }
}

void NotificationDatabaseImpl::save(const NotificationModelInfo& notificationInfo) {
    try {
        database_->write([&notificationInfo](Connection& connection) {
            const NotificationModel& notification = notificationInfo.notification;
            if (const auto& id = notification.id()) {
                auto exists = connection.cachedStatement(R"(SELECT 1 FROM "notification" WHERE "id" = ?)");
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
    constexpr std::string_view newestFirst = R"( ORDER BY "notification"."createdDate" DESC)";
    static const std::string all = std::string(joinedSelect) + std::string(newestFirst);
    static const IDSetStatement some(std::string(joinedSelect) + R"( WHERE "notification"."id" IN )", newestFirst, 1);
    try {
        return database_->read([&ids](Connection& connection) {
            if (!ids) return readJoined(connection, *connection.cachedStatement(all));
            return readJoined(connection, *some.bound(connection, *ids, ids->size()));
        });
    } catch (const std::exception& error) {
        logFailure("Unable to read wrapped notifications: ", error);
        return {};
    }
}

bool NotificationDatabaseImpl::containsVantro(const std::string& version) {
    try {
        return database_->read([&version](Connection& connection) {
            auto statement = connection.cachedStatement(R"(SELECT * FROM "notification" WHERE "version" = ? LIMIT 1)");
            statement->bindNoCopy(1, version);
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
            auto statement = connection.cachedStatement(
                R"(SELECT * FROM "notification" WHERE "customerId" = ?1 AND "notificationKind" = ?2)"
                R"( AND (?3 IS NULL OR "appId" = ?3) AND (?4 IS NULL OR "version" = ?4) LIMIT 1)");
            statement->bindNoCopy(1, customer);
            statement->bind(2, rawValue(type));
            statement->bind(3, appID);
            statement->bind(4, version);
            return findsNotification(*statement);
        });
    } catch (const std::exception&) {
        return false;
    }
}

void NotificationDatabaseImpl::updateStatus(const NotificationIDs& notificationIDs, NotificationStatus status) {
    try {
        database_->write([&](Connection& connection) {
            static const IDSetStatement update(R"(UPDATE "notification" SET "status" = ?1 WHERE "id" IN )", "", 2);
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
            // Taken on the first id, so that an empty set prepares nothing and a failure to
            // prepare ends the loop like any failing update.
            std::optional<CachedStatement> statement;
            for (const std::int64_t id : notificationIDs) {
                const bool updated = runDroppingFailure(connection, [&] {
                    if (!statement) {
                        statement.emplace(connection.cachedStatement(
                            R"(UPDATE "notificationButton" SET "visible" = ? WHERE "notificationId" = ?)"));
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
            runDroppingFailure(connection,
                               [&] { connection.cachedStatement(R"(DELETE FROM "notification")")->execute(); });
            runDroppingFailure(connection,
                               [&] { connection.cachedStatement(R"(DELETE FROM "notificationButton")")->execute(); });
        });
    } catch (const std::exception& error) {
        logFailure("Unable to reset notification database: ", error);
    }
}

void NotificationDatabaseImpl::deleteAllNotifications(NotificationKind kind) {
    static const std::string ofKind = std::string(joinedSelect) + R"( WHERE "notification"."notificationKind" = ?)";
    try {
        database_->write([kind](Connection& connection) {
            std::vector<NotificationModelInfo> rows;
            {
                auto statement = connection.cachedStatement(ofKind);
                statement->bind(1, rawValue(kind));
                rows = readJoined(connection, *statement);
            }
            deleteNamed(connection, rows);
        });
    } catch (const std::exception& error) {
        logFailure("Unable to delete all notification with kind " + std::to_string(rawValue(kind)) + ": ", error);
    }
}

}  // namespace notificationdb
