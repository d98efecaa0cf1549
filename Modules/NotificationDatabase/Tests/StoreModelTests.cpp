// The store and the updater against a reference model: random operations on a real file, values
// built to collide, while another program adds buttons, the disk fails, the power goes and the store
// reopens; after each step answers, notices, log, list and raw tables are what the model says. Every
// rule in `modelRules` must decide a step of every run. One seed is fresh (printed on failure,
// NDB_TEST_SEED replays it), three are fixed; NDB_MODEL_STEPS, NDB_SHOW_RULES=1 (rule counts).

#include "FaultyDisk.hpp"
#include "Testing.hpp"

#include <NotificationDatabase/NotificationUpdater/NotificationUpdaterImpl.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <map>
#include <random>
#include <ranges>

namespace notificationdb {
namespace {

using namespace std::chrono;
using testing::Rows;
using Text = std::optional<std::string>;
using ID = std::optional<std::int64_t>;
using Infos = std::vector<NotificationModelInfo>;

using testing::storedStatuses, testing::storedKinds, testing::storedActions;

// The integer a case is stored as.
// clang-format off
std::int64_t position(const auto& cases, auto value) { return std::ranges::find(cases, value) - std::begin(cases); }
std::int64_t raw(NotificationStatus value) { return position(storedStatuses, value); }
std::int64_t raw(NotificationKind value) { return position(storedKinds, value); }
std::int64_t raw(UserActionKind value) { return position(storedActions, value); }
// clang-format on

std::string dateText(Timestamp date) {
    const auto day = floor<days>(date.sysTime());
    const year_month_day ymd{day};
    const hh_mm_ss time{date.sysTime() - day};
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02u-%02u %02ld:%02ld:%02ld.%03ld", int(ymd.year()), unsigned(ymd.month()),
                  unsigned(ymd.day()), long(time.hours().count()), long(time.minutes().count()),
                  long(time.seconds().count()), long(time.subseconds().count()));
    return text;
}

// A value as the raw tables give it: NULL, x'..' for bytes, numbers in decimal.
template <class T>
std::string stored(const T& value) {
    if constexpr (requires { value.has_value(); }) {
        return value ? stored(*value) : "NULL";
    } else if constexpr (std::is_same_v<T, Bytes>) {
        return testing::blobLiteral(value.data(), value.size());
    } else if constexpr (std::is_same_v<T, std::string>) {
        return value;
    } else if constexpr (std::is_enum_v<T>) {
        return std::to_string(raw(value));
    } else {
        return std::to_string(static_cast<std::int64_t>(value));
    }
}

std::vector<std::string> row(const NotificationModel& n) {
    return {stored(n.id()),        stored(n.customerId()), dateText(n.createdDate), n.version,
            n.analyticsTag,        stored(n.title),        stored(n.body),          stored(n.bannerUrl),
            stored(n.isMarketing), stored(n.appId),        stored(n.status),        stored(n.notificationKind)};
}

std::vector<std::string> row(const NotificationButton& b) {
    return {stored(b.id()),           stored(b.buttonId),   stored(b.title),     stored(b.visible),
            stored(b.notificationId), stored(b.actionKind), stored(b.userAction)};
}

// Every field of each pair, sorted, for comparing lists: pairs themselves compare by notification id only.
template <class Range>
Rows sortedFields(const Range& infos) {
    Rows fields;
    for (const NotificationModelInfo& info : infos) {
        fields.push_back(row(info.notification));
        if (info.actionButton) std::ranges::copy(row(*info.actionButton), std::back_inserter(fields.back()));
    }
    std::ranges::sort(fields);
    return fields;
}

// A set of ids as the messages write it: "[1, 2]".
std::string idList(const NotificationIDs& ids) {
    std::string text;
    for (auto id : ids) text += (text.empty() ? "" : ", ") + std::to_string(id);
    return "[" + text + "]";
}

struct Model {
    std::map<std::int64_t, NotificationModel> notifications;
    std::map<std::int64_t, NotificationButton> buttons;
    // The highest id each table ever had (AUTOINCREMENT): the next automatic id is one more.
    std::int64_t notificationSequence = 0, buttonSequence = 0;
    std::vector<std::string> messages;
    int notices = 0;
    std::map<std::string, int> covered;  // how often each rule of `modelRules` decided a step

    void cover(const std::string& rule) { ++covered[rule]; }

    void log(const std::string& text, std::string_view error) { messages.push_back(text + std::string(error)); }

    // Whether a notification of this kind and customer is stored, of the app and version when given.
    bool contains(NotificationKind kind, const Text& customer, ID app, const Text& version) const {
        return std::ranges::any_of(notifications | std::views::values, [&](const NotificationModel& n) {
            return n.customerId() == customer && n.notificationKind == kind && (!app || n.appId == app) &&
                   (!version || n.version == *version);
        });
    }

    void save(const NotificationModelInfo& info) {
        const NotificationModel& n = info.notification;
        const auto fail = [&](std::string_view error) { log("Unable to save wrapped notification: ", error); };
        if (n.id() && notifications.contains(*n.id())) return cover("save: skipped, its id is stored");
        // Kinds but default_ are kept once per customer, version and app (any app when absent); a row
        // differing in one term is what a lost term would match, each a rule of its own.
        const NotificationModel* same = nullptr;
        std::vector<std::string> nearMisses;
        for (const auto& s : notifications | std::views::values) {
            const bool customer = s.customerId() == n.customerId(), kind = s.notificationKind == n.notificationKind,
                       version = s.version == n.version, app = !n.appId || s.appId == n.appId;
            if (customer && kind && version && app) same = &s;
            if (customer + kind + version + app == 3 && n.notificationKind != NotificationKind::default_)
                nearMisses.push_back(!customer  ? "another customer's"
                                     : !kind    ? "another kind's"
                                     : !version ? "another version's"
                                                : "another app's");
        }
        if (same && n.notificationKind == NotificationKind::default_) cover("save: default_ is never a duplicate");
        if (same && n.notificationKind != NotificationKind::default_) {
            if (!n.appId && same->appId) cover("save: skipped, no app matches a stored app");
            return cover(n.customerId() ? "save: skipped, its key is stored"
                                        : "save: skipped, its key without customer");
        }
        for (const auto& miss : nearMisses) cover("save: stored beside " + miss + " key");
        const auto year = int(year_month_day(floor<days>(n.createdDate.sysTime())).year());
        if (year < 0 || year > 9999)
            return fail(R"(could not store column "createdDate" of "notification": the date has no stored form )"
                        "outside years 0000 to 9999");
        const std::int64_t id = n.id().value_or(notificationSequence + 1);
        notificationSequence = std::max(notificationSequence, id);
        notifications.insert_or_assign(
            id, NotificationModel(id, n.customerId(), n.createdDate, n.version, n.analyticsTag, n.title, n.body,
                                  n.bannerUrl, n.isMarketing, n.appId, n.status, n.notificationKind));
        ++notices;
        if (!info.actionButton) return;
        const NotificationButton& b = *info.actionButton;
        if (b.id() && buttons.contains(*b.id())) cover("save: a button overwrites a stored one");
        const std::int64_t buttonID = b.id().value_or(buttonSequence + 1);
        buttonSequence = std::max(buttonSequence, buttonID);
        buttons.insert_or_assign(
            buttonID, NotificationButton(buttonID, b.buttonId, b.title, b.visible, id, b.actionKind, b.userAction));
    }

    // Deletes notifications with their buttons (the foreign key's cascade), then buttons by id.
    void remove(const NotificationIDs& ids, const NotificationIDs& buttonIDs) {
        NotificationIDs deleted;
        for (auto id : ids)
            if (notifications.erase(id) > 0) deleted.insert(id);
        if (!deleted.empty()) ++notices;
        std::erase_if(buttons, [&](const auto& e) {
            return buttonIDs.contains(e.first) ||
                   (e.second.notificationId && deleted.contains(*e.second.notificationId));
        });
    }

    Infos list(const std::optional<NotificationIDs>& ids = std::nullopt) const {
        Infos result;
        for (const auto& [id, n] : notifications) {
            if (ids && !ids->contains(id)) continue;
            const auto before = result.size();
            for (const auto& [buttonID, b] : buttons)
                if (b.notificationId == id) result.emplace_back(n, b);
            if (result.size() == before) result.emplace_back(n);
        }
        return result;
    }

    // The prune of a pass at `now`, given the list it read (equal dates keep that list's order).
    NotificationIDs expired(const Infos& fetched, Timestamp now) {
        NotificationIDs ids;
        std::map<Text, std::vector<const NotificationModel*>> groups;
        for (const auto& info : fetched) {
            const auto date = info.notification.createdDate;
            if (date <= now - days(30)) ids.insert(*info.notification.id());
            if (date == now - days(30)) cover("prune: a notification exactly 30 days old");
            if (date == now - days(30) + 1ms) cover("prune: a notification a millisecond younger");
            groups[info.notification.customerId()].push_back(&info.notification);
        }
        for (auto& [customer, group] : groups) {
            std::ranges::stable_sort(group, std::greater<>(), &NotificationModel::createdDate);
            for (std::size_t i = 100; i < group.size(); ++i) ids.insert(*group[i]->id());
            if (group.size() <= 100) continue;
            cover(customer ? "prune: a customer over 100" : "prune: no customer, over 100");
            if (group[99]->createdDate == group[100]->createdDate) cover("prune: equal dates at the 100th");
        }
        if (groups[std::nullopt].size() <= 100 && groups[""].size() <= 100 &&
            groups[std::nullopt].size() + groups[""].size() > 100)
            cover("prune: no customer and the empty customer apart");
        return ids;
    }
};

// The store under test, recording what the updater asks of it.
struct RecordingStore final : NotificationDatabaseProtocol {
    explicit RecordingStore(std::shared_ptr<NotificationDatabaseImpl> store) : store(std::move(store)) {}
    std::shared_ptr<NotificationDatabaseImpl> store;
    std::vector<std::string> calls;
    std::optional<Infos> fetched;

    void save(const NotificationModelInfo& info) override { calls.emplace_back("save"), store->save(info); }
    Infos fetchNotifications(const std::optional<NotificationIDs>& ids) override {
        calls.emplace_back("fetch");
        return *(fetched = store->fetchNotifications(ids));
    }
    std::int64_t notificationsCount() override { return store->notificationsCount(); }
    void updateStatus(const NotificationIDs& ids, NotificationStatus s) override { store->updateStatus(ids, s); }
    void updateButtonVisibility(const NotificationIDs& ids, bool v) override { store->updateButtonVisibility(ids, v); }
    void deleteNotifications(const NotificationModelInfoSet& set) override {
        calls.emplace_back("delete"), store->deleteNotifications(set);
    }
    void deleteAllNotifications(NotificationKind kind) override { store->deleteAllNotifications(kind); }
    void deleteAll() override { store->deleteAll(); }
    bool containsVantro(const std::string& version) override { return store->containsVantro(version); }
    bool containsNotification(NotificationKind k, const std::string& c, ID a, const Text& v) override {
        return store->containsNotification(k, c, a, v);
    }
};

// The rules some step of every run must decide: each a case where a store that lost it answers otherwise.
// clang-format off
const std::vector<std::string> modelRules = {
    "save: skipped, its id is stored", "save: skipped, its key is stored", "save: skipped, its key without customer",
    "save: skipped, no app matches a stored app", "save: stored beside another customer's key",
    "save: stored beside another kind's key", "save: stored beside another version's key",
    "save: stored beside another app's key", "save: default_ is never a duplicate",
    "save: a button overwrites a stored one", "prune: a notification exactly 30 days old",
    "prune: a notification a millisecond younger", "prune: a customer over 100", "prune: no customer, over 100",
    "prune: equal dates at the 100th", "prune: no customer and the empty customer apart",
    "containsVantro: true for other kinds alone", "containsNotification: false beside another customer's row",
    "containsNotification: false beside another kind's row", "containsNotification: false beside another app's row",
    "containsNotification: false beside another version's row", "disk: a write done", "disk: a failed write undone",
    "power: a write kept", "power: a failed write gone"};
// clang-format on

// The parameter is a fixed seed, or 0 for a fresh one.
class StoreModel : public ::testing::TestWithParam<std::uint64_t> {
protected:
    const std::uint64_t seed =
        GetParam() != 0 ? GetParam() : testing::environmentNumber("NDB_TEST_SEED", long(std::random_device{}()));
    std::mt19937_64 random{seed};
    testing::TemporaryDirectory directory;
    testing::TestServices services;
    testing::FaultyDisk& disk = testing::FaultyDisk::install();
    // A short busy time-out keeps the steps under another program's lock quick.
    NotificationDatabaseConfig config{directory / "model.sqlite", Configuration{false, BusyMode::timeout(0.05), false}};
    std::shared_ptr<RecordingStore> store =
        std::make_shared<RecordingStore>(NotificationDatabaseImpl::create(config, services.services()));
    Timestamp now = parseDateText("2026-11-01 12:00:00.000").value();
    NotificationUpdaterImpl updater{store, [this] { return now; }};
    Model model;
    std::optional<testing::RawDatabase> other{config.storageURL()};  // another program's connection
    std::int64_t nextBurstID = 1000;

    const std::vector<Text> texts{std::nullopt,           "",         "Hello",
                                  std::string("a\0b", 3), "\xff\xfe", "'; DROP TABLE notification; --"};
    const std::vector<std::string> versions{"1.0", "V1", "v1", "", std::string("1.0\0x", 5), "' OR 1=1 --"};
    const std::vector<Text> customers{std::nullopt, "", "c1", "C1"};
    std::size_t pick(std::size_t count) { return std::uniform_int_distribution<std::size_t>(0, count - 1)(random); }
    template <class T>
    T pick(std::initializer_list<T> values) {
        return values.begin()[pick(values.size())];
    }
    bool chance(double p) { return std::bernoulli_distribution(p)(random); }
    // A member of a non-empty list or map, at random.
    template <class Values>
    auto& any(Values& values) {
        return *std::next(std::begin(values), std::ptrdiff_t(pick(std::size(values))));
    }

    // Half the time the index of the least decided of `rules`, else a random one: rare rules still come up.
    std::size_t steer(const std::vector<std::string>& rules) {
        if (chance(0.5)) return pick(rules.size());
        return std::size_t(std::ranges::min_element(rules, {}, [&](const auto& rule) { return model.covered[rule]; }) -
                           rules.begin());
    }

    ID someID() { return chance(0.4) ? ID() : pick<std::int64_t>({-2, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}); }
    Timestamp someDate() {
        if (chance(0.3)) return now - days(30) + pick<milliseconds>({0ms, 1ms});  // at the age limit
        const Timestamp dates[] = {now - days(40), now + days(1), sys_days(1969y / 12 / 31) + 86'399'999ms,
                                   sys_days(0y / 1 / 1), sys_days(9999y / 12 / 31) + 86'399'999ms,
                                   Timestamp(now.sysTime() - 1h + 400us),
                                   // Beyond the years the file holds.
                                   sys_days(10000y / 1 / 1), now - minutes(pick(5000)), now - minutes(pick(5000))};
        return dates[pick(std::size(dates))];
    }
    NotificationModelInfo someInfo() {
        Text customer = any(customers);
        std::string version = any(versions);
        ID app = pick<ID>({std::nullopt, 0, 7, -1});
        NotificationKind kind = any(storedKinds);
        ID id = someID();
        // Mostly a stored content key (without customer half the time), as it is or with one term changed.
        std::vector<const NotificationModel*> keys[2];
        for (const auto& s : model.notifications | std::views::values)
            if (s.notificationKind != NotificationKind::default_) keys[s.customerId().has_value()].push_back(&s);
        const bool withCustomer = keys[0].empty() || steer({"save: skipped, its key without customer",
                                                            "save: skipped, its key is stored"}) == 1;
        if (auto& from = keys[withCustomer && !keys[1].empty()]; !from.empty() && chance(0.75)) {
            const auto& s = *any(from);
            const auto change =
                steer({"save: skipped, its key is stored", "save: stored beside another customer's key",
                       "save: stored beside another kind's key", "save: stored beside another version's key",
                       "save: stored beside another app's key", "save: skipped, no app matches a stored app"});
            customer = change == 1 ? customer : s.customerId();
            kind = change == 2 ? kind : s.notificationKind;
            version = change == 3 ? version : s.version;
            app = change == 4 ? pick<ID>({0, 7, -1}) : change == 5 ? std::nullopt : s.appId;
            id = chance(0.8) ? std::nullopt : id;
        }
        NotificationModel n(id, customer, someDate(), version, pick<std::string>({"unusedApps", "tag"}), any(texts),
                            any(texts), any(texts), chance(0.5), app, any(storedStatuses), kind);
        if (chance(0.4)) return NotificationModelInfo(n);
        const ID button = model.buttons.empty() || chance(0.5) ? ID(1 + pick(6)) : any(model.buttons).first;
        return {n, NotificationButton(chance(0.5) ? std::nullopt : button, any(texts), any(texts), chance(0.5),
                                      pick<ID>({std::nullopt, 99}),
                                      chance(0.3) ? std::nullopt : std::optional(any(storedActions)),
                                      pick<std::optional<Bytes>>({std::nullopt, Bytes{}, Bytes{0x00, 0xFF, 0x7F}}))};
    }
    NotificationIDs someIDs() {
        NotificationIDs ids;
        for (std::size_t i = pick(4); i > 0; --i) ids.insert(someID().value_or(11));
        return ids;
    }

    // Write `which` of six, on the store and on `on`: its description, and its failure's message prefix.
    struct Write {
        std::string what, failure;
    };
    Write someWrite(std::size_t which, Model& on) {
        switch (which) {
            case 0: {
                const auto info = someInfo();
                store->store->save(info), on.save(info);
                return {"save " + stored(info.notification.id()), "Unable to save wrapped notification: "};
            }
            case 1: {
                const auto ids = someIDs();
                const auto status = any(storedStatuses);
                const std::string failure = "Unable to mark as read notification IDs: " + idList(ids) + ": ";
                chance(0.5) ? store->store->updateStatus(ids, status) : updater.updateStatus(ids, status);
                bool changed = false;
                for (auto& [id, n] : on.notifications)
                    if (ids.contains(id)) n.status = status, changed = true;
                on.notices += changed;
                return {"updateStatus " + idList(ids), failure};
            }
            case 2: {
                const auto ids = someIDs();
                const bool visible = chance(0.5);
                const std::string failure =
                    "Unable to change button visibility for notification IDs: " + idList(ids) + ": ";
                chance(0.5) ? store->store->updateButtonVisibility(ids, visible)
                            : updater.updateButtonVisibility(ids, visible);
                for (auto& [id, b] : on.buttons)
                    if (b.notificationId && ids.contains(*b.notificationId)) b.visible = visible;
                return {"updateButtonVisibility " + idList(ids), failure};
            }
            case 3: {
                // Pairs as listed, made up, or made up around a stored button (of another notification or none).
                NotificationModelInfoSet set;
                const auto listed = on.list();
                for (std::size_t i = pick(5); i > 0; --i) {
                    auto info = chance(0.5) && !listed.empty() ? any(listed) : someInfo();
                    if (!on.buttons.empty() && chance(0.3)) info.actionButton = any(on.buttons).second;
                    set.insert(info);
                }
                store->store->deleteNotifications(set);
                NotificationIDs ids, buttonIDs;
                for (const auto& info : set) {
                    if (info.notification.id()) ids.insert(*info.notification.id());
                    if (info.actionButton && info.actionButton->id()) buttonIDs.insert(*info.actionButton->id());
                }
                on.remove(ids, buttonIDs);
                return {"delete " + std::to_string(set.size()), "Unable to reset notifications database: "};
            }
            case 4: {
                const auto kind = any(storedKinds);
                store->store->deleteAllNotifications(kind);
                const auto what = "delete all notification with kind " + stored(kind);
                NotificationIDs ids;
                for (const auto& [id, n] : on.notifications)
                    if (n.notificationKind == kind) ids.insert(id);
                on.remove(ids, {});
                return {what, "Unable to " + what + ": "};
            }
            default: {
                const Write write{"deleteAll", "Unable to reset notification database: "};
                store->store->deleteAll();
                if (!on.notifications.empty()) ++on.notices;
                on.notifications.clear();
                on.buttons.clear();
                return write;
            }
        }
    }

    // A write while the disk fails at one of its next calls or dies, with `power` a power cut after it:
    // it fails with its message leaving the tables as they were, or completes, and stays completed.
    std::string failingWrite(bool power) {
        using Disk = testing::FaultyDisk;
        const auto call = power ? pick({Disk::write, Disk::sync}) : pick({Disk::write, Disk::sync, Disk::truncate});
        const bool full = call == Disk::write && chance(0.3);
        const std::pair<int, std::string> errors[] = {
            {SQLITE_IOERR_WRITE, "SQLite error 10 (SQLITE_IOERR_WRITE): disk I/O error"},
            {SQLITE_IOERR_FSYNC, "SQLite error 10 (SQLITE_IOERR_FSYNC): disk I/O error"},
            {SQLITE_IOERR_TRUNCATE, "SQLite error 10 (SQLITE_IOERR_TRUNCATE): disk I/O error"},
            {SQLITE_FULL, "SQLite error 13 (SQLITE_FULL): database or disk is full"}};
        const auto& [code, error] = errors[full ? 3 : call];
        disk.failAt(call, call == Disk::sync || chance(0.6) ? 1 : 2 + int(pick(2)), code, power || chance(0.3));
        Model after = model;
        const Write write = someWrite(pick(6), after);
        if (power) closeAndOpen([this] { disk.repair(), disk.powerCut(); });
        disk.repair();
        const bool failed = services.messages() == std::vector{write.failure + error};
        if (tablesAre(after) && !(failed && tablesAre(model))) {
            model = std::move(after);
            model.cover(power ? "power: a write kept" : "disk: a write done");
        } else {
            model.log(write.failure, error);
            model.cover(power ? "power: a failed write gone" : "disk: a failed write undone");
        }
        EXPECT_EQ(other->query("PRAGMA integrity_check"), Rows{{"ok"}});
        // A failed sync leaves frames in the log that a later sync may make durable; a restart settles it.
        if (!power && call == Disk::sync) closeAndOpen([] {});
        return std::string(power ? "the power goes after " : "the disk fails during ") + write.what;
    }

    // Closes every connection to the file, runs `meanwhile`, and opens them again.
    template <class Meanwhile>
    void closeAndOpen(Meanwhile meanwhile) {
        store->store.reset(), other.reset();
        meanwhile();
        store->store = NotificationDatabaseImpl::create(config, services.services());
        other.emplace(config.storageURL());
    }

    std::string step() {
        // The weight of each kind of step, in the order of the cases.
        const int kind = std::discrete_distribution<int>{12, 4, 2, 2, 3, 2, 3, 2, 2, 2, 2, 2, 1, 1, 5, 3}(random);
        switch (kind) {
            case 0:
                return someWrite(0, model).what;
            case 1: {
                Infos batch;
                for (std::size_t i = pick(5); i > 0; --i) batch.push_back(someInfo());
                // Or bursts for two customers, twenty per date so that equal dates meet the limit, with ids
                // (pairs without id are all equal); the first without customer, over 100 when steered.
                for (int group = chance(0.5) ? 2 : 0; group > 0; --group) {
                    const bool over = group == 2 && steer({"prune: no customer and the empty customer apart",
                                                           "prune: no customer, over 100"}) == 1;
                    const auto customer = over ? Text() : group == 2 ? pick<Text>({std::nullopt, ""}) : any(customers);
                    for (std::size_t i = over ? 101 + pick(20) : 30 + pick(91); i > 0; --i)
                        batch.push_back(
                            testing::notification(nextBurstID++, customer, {}, "1.0", now - minutes(i / 20)));
                }
                updater.receive(batch);
                if (batch.empty()) {
                    EXPECT_TRUE(store->calls.empty()) << "an empty batch reached the store";
                    return "receive nothing";
                }
                // The batch as a set: the first entry per notification id (absent is one id), in set order.
                const NotificationModelInfoSet distinct(batch.begin(), batch.end());
                std::map<ID, NotificationModelInfo> first;
                for (const auto& info : batch) first.emplace(info.notification.id(), info);
                EXPECT_EQ(sortedFields(distinct), sortedFields(first | std::views::values)) << "not one first per id";
                for (const auto& info : distinct) model.save(info);
                cleanUp(std::vector<std::string>(distinct.size(), "save"));
                return "receive " + std::to_string(batch.size());
            }
            case 2:
                updater.cleanUp();
                cleanUp({});
                return "cleanUp";
            case 3: {
                const auto ids = chance(0.3) ? std::nullopt : std::optional(someIDs());
                expectList(store->store->fetchNotifications(ids), model.list(ids));
                return "fetch";
            }
            case 4:
            case 5:
            case 6:
            case 7:
                return someWrite(kind - 3, model).what;
            case 8:
                return chance(0.3) ? someWrite(5, model).what : "nothing";
            case 9:
                for (int question = 0; question < 3; ++question) {
                    const auto version = any(versions);
                    const auto count = std::ranges::count(model.notifications | std::views::values, version,
                                                          &NotificationModel::version);
                    EXPECT_EQ(store->store->containsVantro(version), count > 0);
                    if (count > 0 && std::ranges::none_of(model.notifications | std::views::values, [&](const auto& n) {
                            return n.version == version && n.notificationKind == NotificationKind::vantroUpdate;
                        }))
                        model.cover("containsVantro: true for other kinds alone");
                }
                return "containsVantro";
            case 10:  // three keys made up, or those of stored notifications with one term changed
                for (int question = 0; question < 3; ++question) {
                    const auto* n =
                        model.notifications.empty() || chance(0.3) ? nullptr : &any(model.notifications).second;
                    const auto change = chance(0.2)
                                            ? 0
                                            : 1 + steer({"containsNotification: false beside another kind's row",
                                                         "containsNotification: false beside another customer's row",
                                                         "containsNotification: false beside another app's row",
                                                         "containsNotification: false beside another version's row"});
                    const auto kind = n && change != 1 ? n->notificationKind : any(storedKinds);
                    const auto customer = (n && change != 2 ? n->customerId() : any(customers)).value_or("c1");
                    const auto app = n && change != 3 ? (chance(0.3) ? ID() : n->appId) : pick<ID>({{}, 0, 7});
                    const auto version = n && change != 4 ? (chance(0.3) ? Text() : n->version) : any(versions);
                    const bool expected = model.contains(kind, customer, app, version);
                    EXPECT_EQ(store->store->containsNotification(kind, customer, app, version), expected);
                    for (const auto& s : model.notifications | std::views::values) {
                        const bool terms[] = {s.customerId() == customer, s.notificationKind == kind,
                                              !app || s.appId == app, !version || s.version == *version};
                        const char* const names[] = {"customer", "kind", "app", "version"};
                        if (!expected && std::ranges::count(terms, false) == 1)
                            model.cover(std::string("containsNotification: false beside another ") +
                                        names[std::ranges::find(terms, false) - terms] + "'s row");
                    }
                }
                return "containsNotification";
            case 11:
                now = now + pick<milliseconds>({1h, 24h, 240h, 744h});
                return "advance the clock";
            case 12: {  // a second button row for a stored notification
                if (model.notifications.empty()) return "nothing";
                const auto owner = any(model.notifications).first;
                other->execute("INSERT INTO notificationButton VALUES (NULL, 'extra', NULL, 1, " +
                               std::to_string(owner) + ", 2, x'00')");
                const std::int64_t id = ++model.buttonSequence;
                model.buttons.insert_or_assign(id, NotificationButton(id, "extra", std::nullopt, true, owner,
                                                                      UserActionKind::openCollection, Bytes{0}));
                return "another program adds a button to " + std::to_string(owner);
            }
            case 13:
                store->store.reset();
                store->store = NotificationDatabaseImpl::create(config, services.services());
                return "reopen";
            default:
                return failingWrite(kind == 15);
        }
    }

    // What a prune pass does, given the calls the updater made before it.
    void cleanUp(std::vector<std::string> calls) {
        calls.emplace_back("fetch");
        if (const auto fetched = std::exchange(store->fetched, std::nullopt)) {
            expectList(*fetched, model.list());
            if (const auto ids = model.expired(*fetched, now); !ids.empty()) {
                calls.emplace_back("delete");
                model.remove(ids, {});
            }
        }
        EXPECT_EQ(std::exchange(store->calls, {}), calls);
    }

    Rows tableRows(const std::string& table) const { return other->query("SELECT * FROM " + table + " ORDER BY id"); }
    template <class Entries>
    static Rows rowsOf(const Entries& entries) {
        Rows rows;
        for (const auto& [id, entry] : entries) rows.push_back(row(entry));
        return rows;
    }
    bool tablesAre(const Model& state) const {
        return tableRows("notification") == rowsOf(state.notifications) &&
               tableRows("notificationButton") == rowsOf(state.buttons);
    }

    static void expectList(const Infos& actual, const Infos& expected) {
        const auto date = [](const NotificationModelInfo& info) { return info.notification.createdDate; };
        EXPECT_TRUE(std::ranges::is_sorted(actual, std::greater<>(), date)) << "not newest first";
        EXPECT_EQ(sortedFields(actual), sortedFields(expected));
    }

    // Compares everything observable after a step that began at `began`.
    void verify(MainQueue::Clock::time_point began) {
        const auto ended = MainQueue::Clock::now();
        const auto jobs = services.takeJobs();
        EXPECT_EQ(int(jobs.size()), std::exchange(model.notices, 0)) << "notices scheduled";
        for (const auto& [deadline, job] : jobs)
            EXPECT_TRUE(deadline >= began + 1s && deadline <= ended + 1s) << "a notice not due 1.0 s after its commit";
        EXPECT_EQ(store->store->notificationsCount(), std::ssize(model.notifications));
        std::vector<std::string> messages;
        for (const auto& entry : services.takeLog()) {
            EXPECT_TRUE(entry.level == LogLevel::error && entry.loggerPath == "root.notifications-database");
            messages.push_back(entry.message);
        }
        EXPECT_EQ(messages, std::exchange(model.messages, {}));

        EXPECT_EQ(tableRows("notification"), rowsOf(model.notifications)) << "notification";
        EXPECT_EQ(tableRows("notificationButton"), rowsOf(model.buttons)) << "notificationButton";
        EXPECT_EQ(
            other->query("SELECT ifnull(max(CASE name WHEN 'notification' THEN seq END), 0), ifnull(max(CASE name "
                         "WHEN 'notificationButton' THEN seq END), 0) FROM sqlite_sequence"),
            (Rows{{std::to_string(model.notificationSequence), std::to_string(model.buttonSequence)}}));
        expectList(store->store->fetchNotifications(std::nullopt), model.list());
        EXPECT_TRUE(services.takeLog().empty()) << "a read after the step logged";
    }
};

TEST_P(StoreModel, RandomOperationsMatchTheModel) {
    std::deque<std::string> lastSteps;
    const long steps = testing::environmentNumber("NDB_MODEL_STEPS", 600);
    for (long i = 0; i < steps && !HasFailure(); ++i) {
        const auto began = MainQueue::Clock::now();
        lastSteps.push_back(step());
        if (lastSteps.size() > 8) lastSteps.pop_front();
        verify(began);
    }
    // A shorter run than the default need not come upon every rule.
    for (const auto& rule : modelRules) EXPECT_TRUE(steps < 600 || HasFailure() || model.covered[rule] > 0) << rule;
    if (std::getenv("NDB_SHOW_RULES"))
        for (const auto& rule : modelRules) std::printf("RULE %d %s\n", model.covered[rule], rule.c_str());
    if (HasFailure())
        ADD_FAILURE() << "replay with NDB_TEST_SEED=" << seed
                      << "; the last steps: " << ::testing::PrintToString(lastSteps);
}

INSTANTIATE_TEST_SUITE_P(Seeds, StoreModel, ::testing::Values(0, 1, 2, 3), [](const auto& info) {
    return info.param == 0 ? "fresh" : "seed" + std::to_string(info.param);
});

}  // namespace
}  // namespace notificationdb
