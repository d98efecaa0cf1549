// The store and the updater against a reference model of what they must do.
//
// Random operations run on a real file: saves and batches drawn from a pool of values built to
// collide (a few ids, negative ones, customers absent, empty or differing only in case, texts
// with NUL bytes, invalid UTF-8 and SQL, empty and absent bytes, dates before 1970, at the edges
// of the years the file holds and 40 days old, bursts of 120 for one customer), queries, status
// and button changes, deletions and prunes with a clock of the test's own, while another program
// adds button rows, holds the write lock or drops a table, and the store is reopened. After
// every step the answer, the notices scheduled, the log, the count, the list and the raw tables
// must be what the model says.
//
// NDB_TEST_SEED replays a run (the seed is printed on failure); NDB_MODEL_STEPS sets its length.

#include "Testing.hpp"

#include <NotificationDatabase/NotificationUpdater/NotificationUpdaterImpl.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>

namespace notificationdb {
namespace {

using namespace std::chrono_literals;
using testing::RawDatabase;
using Rows = std::vector<std::vector<std::string>>;

// --- storage forms, written here from the file's format -----------------------------------------

std::string dateText(Timestamp date) {
    const auto day = std::chrono::floor<std::chrono::days>(date.sysTime());
    const std::chrono::year_month_day ymd{day};
    const std::chrono::hh_mm_ss time{date.sysTime() - day};
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02u-%02u %02ld:%02ld:%02ld.%03ld", int(ymd.year()), unsigned(ymd.month()),
                  unsigned(ymd.day()), long(time.hours().count()), long(time.minutes().count()),
                  long(time.seconds().count()), long(time.subseconds().count()));
    return text;
}

template <class T>
std::string stored(const std::optional<T>& value) {
    if (!value) return "NULL";
    if constexpr (std::is_same_v<T, std::string>) {
        return *value;
    } else if constexpr (std::is_same_v<T, Bytes>) {
        std::string text = "x'";
        for (auto byte : *value) text += {"0123456789ABCDEF"[byte >> 4], "0123456789ABCDEF"[byte & 15]};
        return text + "'";
    } else if constexpr (std::is_enum_v<T>) {
        return std::to_string(static_cast<std::int64_t>(*value));
    } else {
        return std::to_string(*value);
    }
}

std::vector<std::string> row(const NotificationModel& n) {
    return {stored(n.id()),
            stored(n.customerId()),
            dateText(n.createdDate),
            n.version,
            n.analyticsTag,
            stored(n.title),
            stored(n.body),
            stored(n.bannerUrl),
            n.isMarketing ? "1" : "0",
            stored(n.appId),
            stored(std::optional(n.status)),
            stored(std::optional(n.notificationKind))};
}

std::vector<std::string> row(const NotificationButton& b) {
    return {stored(b.id()),           stored(b.buttonId),   stored(b.title),     b.visible ? "1" : "0",
            stored(b.notificationId), stored(b.actionKind), stored(b.userAction)};
}

// Every field of a pair, for comparing lists: pairs themselves compare by notification id only.
std::string fieldsOf(const NotificationModelInfo& info) {
    std::string text;
    for (const auto& field : row(info.notification)) text += field + '|';
    if (info.actionButton) {
        for (const auto& field : row(*info.actionButton)) text += field + '|';
    }
    return text;
}

// A set of ids as the messages write it: "[1, 2]".
std::string idList(const NotificationIDs& ids) {
    std::string text;
    for (auto id : ids) text += (text.empty() ? "" : ", ") + std::to_string(id);
    return "[" + text + "]";
}

NotificationModel withID(const NotificationModel& n, std::int64_t id) {
    return {id,     n.customerId(), n.createdDate, n.version, n.analyticsTag, n.title,
            n.body, n.bannerUrl,    n.isMarketing, n.appId,   n.status,       n.notificationKind};
}

NotificationButton withID(const NotificationButton& b, std::int64_t id, std::optional<std::int64_t> owner) {
    return {id, b.buttonId, b.title, b.visible, owner, b.actionKind, b.userAction};
}

// --- the model ---------------------------------------------------------------------------------

constexpr std::string_view kBusy = "SQLite error 5 (SQLITE_BUSY): database is locked";
constexpr std::string_view kNoTable = "SQLite error 1 (SQLITE_ERROR): no such table: notification";
constexpr std::string_view kNoButtonTable = "SQLite error 1 (SQLITE_ERROR): no such table: notificationButton";

struct Model {
    std::map<std::int64_t, NotificationModel> notifications;
    std::map<std::int64_t, NotificationButton> buttons;
    // The highest id each table ever had (AUTOINCREMENT): the next automatic id is one more.
    std::int64_t notificationSequence = 0;
    std::int64_t buttonSequence = 0;
    bool locked = false;  // another program holds the write lock: every write fails
    std::string dropped;  // the table another program dropped, if any
    bool noNotifications() const { return dropped == "notification"; }
    bool noButtons() const { return dropped == "notificationButton"; }
    // What the joined read fails with, if it fails.
    std::optional<std::string_view> readFailure() const {
        if (dropped.empty()) return std::nullopt;
        return noButtons() ? kNoButtonTable : kNoTable;
    }
    std::vector<std::string> messages;
    int notices = 0;

    // The failure of a write transaction, or nullopt when it can run.
    std::optional<std::string_view> writeFailure() const {
        if (locked) return kBusy;
        if (noNotifications()) return kNoTable;
        return std::nullopt;
    }
    void log(const std::string& text, std::string_view error) { messages.push_back(text + std::string(error)); }

    bool contentDuplicate(const NotificationModel& n) const {
        if (n.notificationKind == NotificationKind::default_) return false;
        return std::ranges::any_of(notifications, [&](const auto& entry) {
            const NotificationModel& s = entry.second;
            return s.customerId() == n.customerId() && s.notificationKind == n.notificationKind &&
                   s.version == n.version && (!n.appId || s.appId == n.appId);
        });
    }

    void save(const NotificationModelInfo& info) {
        const NotificationModel& n = info.notification;
        if (const auto failure = writeFailure()) return log("Unable to save wrapped notification: ", *failure);
        if (n.id() && notifications.contains(*n.id())) return;
        if (contentDuplicate(n)) return;
        const auto year =
            int(std::chrono::year_month_day(std::chrono::floor<std::chrono::days>(n.createdDate.sysTime())).year());
        if (year < 0 || year > 9999) {
            return log("Unable to save wrapped notification: ",
                       R"(could not read column "createdDate" of "notification": date is outside years 0000 to 9999)");
        }
        if (noButtons() && info.actionButton) return log("Unable to save wrapped notification: ", kNoButtonTable);
        const std::int64_t id = n.id().value_or(notificationSequence + 1);
        notificationSequence = std::max(notificationSequence, id);
        notifications.insert_or_assign(id, withID(n, id));
        ++notices;
        if (!info.actionButton) return;
        const std::int64_t buttonID = info.actionButton->id().value_or(buttonSequence + 1);
        buttonSequence = std::max(buttonSequence, buttonID);
        buttons.insert_or_assign(buttonID, withID(*info.actionButton, buttonID, id));
    }

    // Deletes notifications with their buttons (the foreign key's cascade), then buttons by id.
    // Without the table "notification" neither DELETE can run (a button's delete checks its
    // foreign key); without "notificationButton" the first runs alone. Failures are dropped.
    void remove(const NotificationIDs& ids, const NotificationIDs& buttonIDs) {
        if (noNotifications()) return;
        NotificationIDs deleted;
        for (auto id : ids) {
            if (notifications.erase(id) > 0) deleted.insert(id);
        }
        if (!deleted.empty()) ++notices;
        if (noButtons()) return;
        std::erase_if(buttons, [&](const auto& e) {
            return buttonIDs.contains(e.first) ||
                   (e.second.notificationId && deleted.contains(*e.second.notificationId));
        });
    }

    std::vector<NotificationModelInfo> list(const std::optional<NotificationIDs>& ids = std::nullopt) const {
        std::vector<NotificationModelInfo> result;
        for (const auto& [id, n] : notifications) {
            if (ids && !ids->contains(id)) continue;
            bool hasButton = false;
            for (const auto& [buttonID, b] : buttons) {
                if (b.notificationId != id) continue;
                result.emplace_back(n, b);
                hasButton = true;
            }
            if (!hasButton) result.emplace_back(n);
        }
        return result;
    }

    // The prune of a pass at `now`, given the list it read (equal dates keep that list's order).
    NotificationIDs expired(const std::vector<NotificationModelInfo>& fetched, Timestamp now) const {
        NotificationIDs ids;
        std::map<std::optional<std::string>, std::vector<const NotificationModel*>> groups;
        for (const auto& info : fetched) {
            if (info.notification.createdDate <= now - std::chrono::seconds(2'592'000))
                ids.insert(*info.notification.id());
            groups[info.notification.customerId()].push_back(&info.notification);
        }
        for (auto& [customer, group] : groups) {
            std::ranges::stable_sort(group, std::greater<>(), &NotificationModel::createdDate);
            for (std::size_t i = 100; i < group.size(); ++i) ids.insert(*group[i]->id());
        }
        return ids;
    }
};

// --- the store under test, and what the updater asks of it ---------------------------------------

class RecordingStore final : public NotificationDatabaseProtocol {
public:
    std::shared_ptr<NotificationDatabaseImpl> store;
    std::vector<std::string> calls;
    std::optional<std::vector<NotificationModelInfo>> fetched;

    void save(const NotificationModelInfo& info) override { calls.emplace_back("save"), store->save(info); }
    std::vector<NotificationModelInfo> fetchNotifications(const std::optional<NotificationIDs>& ids) override {
        calls.emplace_back("fetch");
        return *(fetched = store->fetchNotifications(ids));
    }
    std::int64_t notificationsCount() override { return store->notificationsCount(); }
    void updateStatus(const NotificationIDs& ids, NotificationStatus s) override {
        calls.emplace_back("status"), store->updateStatus(ids, s);
    }
    void updateButtonVisibility(const NotificationIDs& ids, bool visible) override {
        calls.emplace_back("buttons"), store->updateButtonVisibility(ids, visible);
    }
    void deleteNotifications(const NotificationModelInfoSet& set) override {
        calls.emplace_back("delete"), store->deleteNotifications(set);
    }
    void deleteAllNotifications(NotificationKind kind) override { store->deleteAllNotifications(kind); }
    void deleteAll() override { store->deleteAll(); }
    bool containsVantro(const std::string& version) override { return store->containsVantro(version); }
    bool containsNotification(NotificationKind type, const std::string& customer, std::optional<std::int64_t> app,
                              const std::optional<std::string>& version) override {
        return store->containsNotification(type, customer, app, version);
    }
};

class StoreModel : public ::testing::Test {
protected:
    const std::uint64_t seed = testing::testSeed();
    std::mt19937_64 random{seed};
    testing::TemporaryDirectory directory;
    testing::LogCapture log;
    testing::ScheduledNotices scheduled;
    // A short busy time-out keeps the steps under another program's lock quick.
    NotificationDatabaseConfig config{directory / "model.sqlite", Configuration{false, BusyMode::timeout(0.05), false}};
    std::shared_ptr<RecordingStore> store = std::make_shared<RecordingStore>();
    Timestamp now = parseDateText("2026-11-01 12:00:00.000").value();
    NotificationUpdaterImpl updater{store, [this] { return now; }};
    Model model;
    std::optional<RawDatabase> other;  // another program's connection
    Rows droppedSchema;
    std::string droppedSequence;
    std::int64_t nextBurstID = 1000;
    int lockedSteps = 0;
    int droppedSteps = 0;

    void SetUp() override {
        store->store = NotificationDatabaseImpl::create(config);
        other.emplace(config.storageURL());
        // Dropping a table must not empty its children through the foreign key.
        other->execute("PRAGMA foreign_keys = OFF");
    }

    // --- the value pool ---
    std::size_t pick(std::size_t count) { return std::uniform_int_distribution<std::size_t>(0, count - 1)(random); }
    template <class T>
    T pick(std::initializer_list<T> values) {
        return values.begin()[pick(values.size())];
    }
    bool chance(double p) { return std::bernoulli_distribution(p)(random); }
    // An entry of a non-empty map, at random.
    template <class Map>
    auto& any(Map& map) {
        return *std::next(map.begin(), std::ptrdiff_t(pick(map.size())));
    }

    std::optional<std::int64_t> someID() {
        return chance(0.4) ? std::nullopt : std::optional(pick<std::int64_t>({-2, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    }
    std::optional<std::string> someText() {
        return pick<std::optional<std::string>>(
            {std::nullopt, "", "Hello", std::string("a\0b", 3), "\xff\xfe", "'; DROP TABLE notification; --"});
    }
    std::string someVersion() {
        return pick<std::string>({"1.0", "V1", "v1", "", std::string("1.0\0x", 5), "' OR 1=1 --"});
    }
    std::optional<std::string> someCustomer() {
        return pick<std::optional<std::string>>({std::nullopt, "", "c1", "C1"});
    }
    Timestamp someDate() {
        using namespace std::chrono;
        const Timestamp dates[] = {
            now - days(30), now - days(30) + 1ms, now - days(40), now + days(1),  // around the age limit
            sys_days(1969y / 12 / 31) + 86'399'999ms, sys_days(0y / 1 / 1), sys_days(9999y / 12 / 31) + 86'399'999ms,
            Timestamp(now.sysTime() - 1h + 400us),
            // Beyond the years the file holds (without a table, which failure comes first is open).
            model.dropped.empty() ? Timestamp(sys_days(10000y / 1 / 1)) : now, now - minutes(pick(5000)),
            now - minutes(pick(5000))};
        return dates[pick(std::size(dates))];
    }
    NotificationModelInfo someInfo(std::optional<std::string> customer, bool withButton) {
        NotificationModel n(someID(), std::move(customer), someDate(), someVersion(),
                            pick<std::string>({"unusedApps", "tag"}), someText(), someText(), someText(), chance(0.5),
                            pick<std::optional<std::int64_t>>({std::nullopt, 0, 7, -1}),
                            *fromRawValue<NotificationStatus>(std::int64_t(pick(3))),
                            *fromRawValue<NotificationKind>(std::int64_t(pick(5))));
        if (!withButton) return NotificationModelInfo(n);
        return {n, NotificationButton(chance(0.5) ? std::nullopt : std::optional(std::int64_t(1 + pick(6))), someText(),
                                      someText(), chance(0.5), pick<std::optional<std::int64_t>>({std::nullopt, 99}),
                                      chance(0.3) ? std::nullopt : fromRawValue<UserActionKind>(std::int64_t(pick(7))),
                                      pick<std::optional<Bytes>>({std::nullopt, Bytes{}, Bytes{0x00, 0xFF, 0x7F}}))};
    }
    NotificationModelInfo someInfo() { return someInfo(someCustomer(), chance(0.6)); }
    // New notifications of one customer, forty to each date, so that equal dates meet the limit.
    // Each has an id of its own: pairs without id are all equal, and a batch keeps one of them.
    NotificationModelInfo burstInfo(const std::optional<std::string>& customer, std::size_t i) {
        return NotificationModelInfo(NotificationModel(
            nextBurstID++, customer, now - std::chrono::minutes(i / 40), "1.0", "tag", std::nullopt, std::nullopt,
            std::nullopt, false, std::nullopt, NotificationStatus::new_, NotificationKind::default_));
    }
    NotificationIDs someIDs() {
        NotificationIDs ids;
        for (std::size_t i = pick(4); i > 0; --i) ids.insert(someID().value_or(11));
        return ids;
    }

    // --- steps ---
    std::string step() {
        if (lockedSteps > 0 && --lockedSteps == 0) other->execute("COMMIT"), model.locked = false;
        if (droppedSteps > 0 && --droppedSteps == 0) restoreTable();
        switch (pick(20)) {
            case 0:
            case 1:
            case 2:
            case 3: {
                const auto info = someInfo();
                store->store->save(info), model.save(info);
                return "save " + fieldsOf(info);
            }
            case 4:
            case 5: {
                std::vector<NotificationModelInfo> batch;
                const bool burst = !model.locked && chance(0.15);
                const auto customer = someCustomer();
                for (std::size_t i = burst ? 120 : pick(5); i > 0; --i)
                    batch.push_back(burst ? burstInfo(customer, i) : someInfo());
                receive(batch);
                return "receive " + std::to_string(batch.size());
            }
            case 6:
                store->calls.clear();
                updater.cleanUp();
                cleanUp({});
                return "cleanUp";
            case 7: {
                const auto ids = chance(0.3) ? std::nullopt : std::optional(someIDs());
                const auto fetched = store->store->fetchNotifications(ids);
                const auto failure = model.readFailure();
                if (failure) model.log("Unable to read wrapped notifications: ", *failure);
                expectList(fetched, failure ? std::vector<NotificationModelInfo>{} : model.list(ids));
                return "fetch";
            }
            case 8:
            case 9: {
                const auto ids = someIDs();
                const auto status = *fromRawValue<NotificationStatus>(std::int64_t(pick(3)));
                chance(0.5) ? store->store->updateStatus(ids, status) : updater.updateStatus(ids, status);
                if (const auto failure = model.writeFailure()) {
                    model.log("Unable to mark as read notification IDs: " + idList(ids) + ": ", *failure);
                } else if (std::ranges::any_of(ids, [&](auto id) { return model.notifications.contains(id); })) {
                    for (auto id : ids) {
                        if (auto found = model.notifications.find(id); found != model.notifications.end())
                            found->second.status = status;
                    }
                    ++model.notices;
                }
                return "updateStatus " + idList(ids);
            }
            case 10: {
                const auto ids = someIDs();
                const bool visible = chance(0.5);
                chance(0.5) ? store->store->updateButtonVisibility(ids, visible)
                            : updater.updateButtonVisibility(ids, visible);
                if (model.locked) {
                    model.log("Unable to change button visibility for notification IDs: " + idList(ids) + ": ", kBusy);
                } else if (!model.noButtons()) {
                    for (auto& [id, b] : model.buttons) {
                        if (b.notificationId && ids.contains(*b.notificationId)) b.visible = visible;
                    }
                }
                return "updateButtonVisibility " + idList(ids);
            }
            case 11:
            case 12: {
                // Pairs as listed, made up, or made up around a stored button (whose notification
                // may be another, or none).
                NotificationModelInfoSet set;
                const auto listed = model.list();
                for (std::size_t i = pick(5); i > 0; --i) {
                    auto info = chance(0.5) && !listed.empty() ? listed[pick(listed.size())] : someInfo();
                    if (!model.buttons.empty() && chance(0.3)) {
                        const auto& b = any(model.buttons).second;
                        info.actionButton = b;
                    }
                    set.insert(info);
                }
                store->store->deleteNotifications(set);
                if (model.locked) return model.log("Unable to reset notifications database: ", kBusy), "delete";
                NotificationIDs ids, buttonIDs;
                for (const auto& info : set) {
                    if (info.notification.id()) ids.insert(*info.notification.id());
                    if (info.actionButton && info.actionButton->id()) buttonIDs.insert(*info.actionButton->id());
                }
                model.remove(ids, buttonIDs);
                return "delete " + std::to_string(set.size());
            }
            case 13: {
                const auto kind = *fromRawValue<NotificationKind>(std::int64_t(pick(5)));
                store->store->deleteAllNotifications(kind);
                if (const auto failure = model.locked ? model.writeFailure() : model.readFailure()) {
                    model.log("Unable to delete all notification with kind " + std::to_string(rawValue(kind)) + ": ",
                              *failure);
                    return "deleteAllNotifications";
                }
                NotificationIDs ids;
                for (const auto& [id, n] : model.notifications) {
                    if (n.notificationKind == kind) ids.insert(id);
                }
                model.remove(ids, {});
                return "deleteAllNotifications " + std::to_string(rawValue(kind));
            }
            case 14:
                if (model.dropped.empty() && !chance(0.3)) return "nothing";
                store->store->deleteAll();
                if (model.locked) return model.log("Unable to reset notification database: ", kBusy), "deleteAll";
                if (model.noNotifications()) return "deleteAll";
                if (!model.notifications.empty()) ++model.notices;
                model.notifications.clear();
                if (!model.noButtons()) model.buttons.clear();
                return "deleteAll";
            case 15: {
                const auto version = someVersion();
                const bool expected = model.noNotifications() ||
                                      std::ranges::any_of(model.notifications,
                                                          [&](const auto& e) { return e.second.version == version; });
                EXPECT_EQ(store->store->containsVantro(version), expected);
                return "containsVantro";
            }
            case 16: {
                auto kind = *fromRawValue<NotificationKind>(std::int64_t(pick(5)));
                auto customer = someCustomer().value_or("c1");
                auto app = pick<std::optional<std::int64_t>>({std::nullopt, 0, 7});
                auto version = chance(0.5) ? std::nullopt : std::optional(someVersion());
                if (!model.notifications.empty() && chance(0.5)) {  // the key of a stored one, in part
                    const auto& n = any(model.notifications).second;
                    kind = n.notificationKind;
                    customer = n.customerId().value_or("c1");
                    app = chance(0.5) ? n.appId : std::nullopt;
                    version = chance(0.5) ? std::optional(n.version) : std::nullopt;
                }
                const bool expected =
                    !model.noNotifications() && std::ranges::any_of(model.notifications, [&](const auto& e) {
                        const NotificationModel& n = e.second;
                        return n.customerId() == customer && n.notificationKind == kind && (!app || n.appId == app) &&
                               (!version || n.version == *version);
                    });
                EXPECT_EQ(store->store->containsNotification(kind, customer, app, version), expected);
                return "containsNotification";
            }
            case 17:
                now = now + pick<std::chrono::milliseconds>({1h, 24h, 240h, 744h});
                return "advance the clock";
            default:
                return otherProgram();
        }
    }

    void receive(const std::vector<NotificationModelInfo>& batch) {
        store->calls.clear();
        updater.receive(batch);
        if (batch.empty()) {
            EXPECT_TRUE(store->calls.empty()) << "an empty batch reached the store";
            return;
        }
        // The batch as a set, in the order the set yields its members: one entry per notification
        // id (absent counting as one id), the first of the list.
        const NotificationModelInfoSet distinct(batch.begin(), batch.end());
        std::map<std::optional<std::int64_t>, std::string> first;
        for (const auto& info : batch) first.emplace(info.notification.id(), fieldsOf(info));
        std::vector<std::string> members, expected;
        for (const auto& info : distinct) members.push_back(fieldsOf(info));
        for (const auto& [id, fields] : first) expected.push_back(fields);
        std::ranges::sort(members);
        std::ranges::sort(expected);
        EXPECT_EQ(members, expected) << "the batch's set is not one first entry per id";
        std::vector<std::string> calls;
        for (const auto& info : distinct) model.save(info), calls.emplace_back("save");
        cleanUp(calls);
    }

    // What a prune pass does, given the calls the updater made before it.
    void cleanUp(std::vector<std::string> calls) {
        calls.emplace_back("fetch");
        if (const auto failure = model.readFailure()) {
            model.log("Unable to read wrapped notifications: ", *failure);
        } else if (store->fetched) {
            expectList(*store->fetched, model.list());
            const auto ids = model.expired(*store->fetched, now);
            if (!ids.empty()) {
                calls.emplace_back("delete");
                if (model.locked) {
                    model.log("Unable to reset notifications database: ", kBusy);
                } else {
                    model.remove(ids, {});
                }
            }
        }
        EXPECT_EQ(store->calls, calls);
        store->fetched.reset();
    }

    std::string otherProgram() {
        switch (pick(4)) {
            case 0: {  // a second button row for a stored notification
                if (model.notifications.empty() || !model.dropped.empty() || model.locked) return "nothing";
                const auto owner = any(model.notifications).first;
                other->execute(
                    "INSERT INTO notificationButton (buttonId, title, visible, notificationId, actionKind, userAction) "
                    "VALUES ('extra', NULL, 1, " +
                    std::to_string(owner) + ", 2, x'00')");
                const std::int64_t id = ++model.buttonSequence;
                model.buttons.insert_or_assign(id, NotificationButton(id, "extra", std::nullopt, true, owner,
                                                                      UserActionKind::openCollection, Bytes{0}));
                return "another program adds a button to " + std::to_string(owner);
            }
            case 1:
                if (model.locked || !model.dropped.empty()) return "nothing";
                other->execute("BEGIN IMMEDIATE");
                model.locked = true;
                lockedSteps = 1 + int(pick(3));
                return "another program holds the write lock";
            case 2: {
                if (model.locked || !model.dropped.empty()) return "nothing";
                model.dropped = chance(0.5) ? "notification" : "notificationButton";
                const std::string table = "'" + model.dropped + "'";
                droppedSchema =
                    other->query("SELECT sql FROM sqlite_master WHERE tbl_name = " + table + " ORDER BY type DESC");
                droppedSequence =
                    other->query("SELECT ifnull((SELECT seq FROM sqlite_sequence WHERE name = " + table + "), 0)")
                        .at(0)
                        .at(0);
                other->execute("CREATE TABLE saved AS SELECT * FROM " + model.dropped);
                other->execute("DROP TABLE " + model.dropped);
                droppedSteps = 1 + int(pick(3));
                return "another program drops the table " + model.dropped;
            }
            default:
                if (!model.dropped.empty()) return "nothing";
                store->store.reset();
                store->store = NotificationDatabaseImpl::create(config);
                return "reopen";
        }
    }

    // The dropped table comes back with its index, rows and AUTOINCREMENT counter.
    void restoreTable() {
        for (const auto& sql : droppedSchema) other->execute(sql.at(0));
        other->execute("INSERT INTO " + model.dropped + " SELECT * FROM saved");
        other->execute("DROP TABLE saved");
        other->execute("DELETE FROM sqlite_sequence WHERE name = '" + model.dropped + "'");
        other->execute("INSERT INTO sqlite_sequence VALUES ('" + model.dropped + "', " + droppedSequence + ")");
        model.dropped.clear();
    }

    static void expectList(const std::vector<NotificationModelInfo>& actual,
                           const std::vector<NotificationModelInfo>& expected) {
        for (std::size_t i = 1; i < actual.size(); ++i) {
            EXPECT_GE(actual[i - 1].notification.createdDate, actual[i].notification.createdDate) << "not newest first";
        }
        std::vector<std::string> got, want;
        for (const auto& info : actual) got.push_back(fieldsOf(info));
        for (const auto& info : expected) want.push_back(fieldsOf(info));
        std::ranges::sort(got);
        std::ranges::sort(want);
        EXPECT_EQ(got, want);
    }

    // Compares everything observable after a step that began at `began`.
    void verify(MainQueue::Clock::time_point began) {
        const auto ended = MainQueue::Clock::now();
        const auto deadlines = scheduled.take();
        EXPECT_EQ(int(deadlines.size()), model.notices) << "notices scheduled";
        for (const auto deadline : deadlines) {
            EXPECT_TRUE(deadline >= began + 1s && deadline <= ended + 1s) << "a notice not due 1.0 s after its commit";
        }
        model.notices = 0;
        std::vector<std::string> messages;
        for (const auto& entry : log.take()) {
            EXPECT_EQ(entry.level, LogLevel::error);
            EXPECT_EQ(entry.loggerPath, "root.notifications-database");
            messages.push_back(entry.message);
        }
        EXPECT_EQ(messages, model.messages);
        model.messages.clear();

        Rows notifications, buttons;
        for (const auto& [id, n] : model.notifications) notifications.push_back(row(n));
        for (const auto& [id, b] : model.buttons) buttons.push_back(row(b));
        const auto rows = [&](const std::string& table) {
            return other->query("SELECT * FROM " + (table == model.dropped ? "saved" : table) + " ORDER BY id");
        };
        EXPECT_EQ(rows("notification"), notifications);
        EXPECT_EQ(rows("notificationButton"), buttons);
        if (model.noNotifications()) {
            EXPECT_EQ(store->store->notificationsCount(), 0);
            const auto logged = log.take();
            EXPECT_TRUE(logged.size() == 1 &&
                        logged[0].message == "Unable to fetch notifications count: " + std::string(kNoTable));
            return;
        }
        EXPECT_EQ(store->store->notificationsCount(), std::int64_t(model.notifications.size()));
        if (!model.dropped.empty()) return;
        EXPECT_EQ(other->query("SELECT ifnull((SELECT seq FROM sqlite_sequence WHERE name = 'notification'), 0), "
                               "ifnull((SELECT seq FROM sqlite_sequence WHERE name = 'notificationButton'), 0)"),
                  (Rows{{std::to_string(model.notificationSequence), std::to_string(model.buttonSequence)}}));
        expectList(store->store->fetchNotifications(std::nullopt), model.list());
        EXPECT_TRUE(log.take().empty()) << "a read after the step logged";
    }
};

TEST_F(StoreModel, RandomOperationsMatchTheModel) {
    const long steps = testing::environmentNumber("NDB_MODEL_STEPS", 400);
    std::vector<std::string> history;
    for (long i = 0; i < steps && !HasFailure(); ++i) {
        const auto began = MainQueue::Clock::now();
        history.push_back(step());
        verify(began);
    }
    if (HasFailure()) {
        std::string tail;
        for (std::size_t i = history.size() > 8 ? history.size() - 8 : 0; i < history.size(); ++i) {
            tail += "\n  ";
            for (const char c : history[i]) tail += c >= ' ' && c < 127 ? std::string(1, c) : "?";
        }
        ADD_FAILURE() << "replay with NDB_TEST_SEED=" << seed << "; the last steps:" << tail;
    }
}

}  // namespace
}  // namespace notificationdb
