// Every case runs in the same process as `Library/<case>` through the public API of the store and
// the updater, as `Baseline/<case>` through `RawStore`, the same work written directly on the
// sqlite3 C API, and as `Pair/<case>`, both at once with their calls alternating. Each side
// starts on its own fresh copy of a prepared database file in a private directory (on /dev/shm
// when there is one).
//
// Timing covers the operation alone. Cases that delete rows put them back, and cases that add
// rows take them out again, through a separate maintenance connection with the clock stopped
// (after every iteration, or for the saves after every 100), so every timed call meets the same
// table size. A write by that other connection makes SQLite drop the page caches of the
// measured connections at their next transaction; that happens on both sides alike.
//
// After the timed loop each case makes one more call under an allocation probe and reports its
// heap use as the counters `peak_bytes` (the highest number of bytes held at once during the
// call, result included) and `allocations`. The label says whether the case writes or reads.

#include "AllocationCounter.hpp"
#include "Fixtures.hpp"
#include "RawStore.hpp"

#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/NotificationUpdater/NotificationUpdaterImpl.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include <benchmark/benchmark.h>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_START_INSTRUMENTATION
#define CALLGRIND_STOP_INSTRUMENTATION
#define CALLGRIND_DUMP_STATS_AT(name) static_cast<void>(name)
#endif

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace notificationdb::bench {

namespace {

using namespace std::chrono_literals;

// Rows added by a save case stay this many iterations before they are taken out again.
constexpr std::int64_t saveRestoreInterval = 100;
constexpr int largeTable = 10'000;
// The row in the middle of a large file that the lookups find; its kind is not `default`.
constexpr int middleIndex = 5'001;

// --- inputs ---------------------------------------------------------------------------------

Configuration storeConfiguration() {
    Configuration configuration;
    configuration.busyMode = BusyMode::timeout(2.0);
    return configuration;
}

std::shared_ptr<NotificationDatabaseImpl> openLibraryStore(const std::filesystem::path& path) {
    return NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, storeConfiguration()));
}

Timestamp now() {
    return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

// New notifications that match no stored content key: kinds other than `default` (so the
// content check runs), with a customer, an app and a button. With `firstID` they carry ids.
std::vector<RawInfo> newNotifications(int count, const std::string& versionPrefix, std::optional<std::int64_t> firstID,
                                      bool everyOtherWithButton) {
    std::vector<RawInfo> rows;
    rows.reserve(static_cast<std::size_t>(count));
    const Timestamp created = now() - 1h;
    for (int k = 0; k < count; ++k) {
        RawInfo row = makeRow(Spread::twentyCustomers, 1, 0, created);
        RawNotification& n = row.notification;
        n.id = firstID ? std::optional<std::int64_t>(*firstID + k) : std::nullopt;
        n.customerId = "customer-" + std::to_string(k % 20);
        n.createdDate = created;
        n.version = versionPrefix + std::to_string(k);
        n.notificationKind = 1 + k % 4;
        n.appId = 2'000'000 + k;
        n.status = 0;
        if (everyOtherWithButton && k % 2 == 1) {
            row.button.reset();
        } else {
            row.button->notificationId.reset();
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

std::vector<NotificationModelInfo> toModelInfos(const std::vector<RawInfo>& rows) {
    std::vector<NotificationModelInfo> infos;
    infos.reserve(rows.size());
    for (const RawInfo& row : rows) infos.push_back(toModelInfo(row));
    return infos;
}

// 100 ids spread over a large file, half of them of notifications with a button.
std::vector<std::int64_t> hundredIDs() {
    std::vector<std::int64_t> ids;
    for (int j = 0; j < 100; ++j) ids.push_back(j * 100 + 6 + j % 2 + 1);
    return ids;
}

// 10 ids spread over a large file.
std::vector<std::int64_t> tenIDs() {
    std::vector<std::int64_t> ids;
    for (int j = 0; j < 10; ++j) ids.push_back(j * 1'000 + 2);
    return ids;
}

NotificationIDs toIDSet(const std::vector<std::int64_t>& ids) {
    return {ids.begin(), ids.end()};
}

RawInfo middleRow() {
    return makeRow(Spread::twentyCustomers, largeTable, middleIndex, now());
}

std::string inCondition(const std::vector<std::int64_t>& ids) {
    return "\"id\" IN (SELECT value FROM json_each('" + idList(ids) + "'))";
}

// --- checks -------------------------------------------------------------------------------

void expect(bool condition, const std::string& what) {
    if (!condition) throw std::runtime_error("unexpected state: " + what);
}

// The text of everything a fetch returned, so that the two sides can be compared.
std::string describeRows(const std::vector<NotificationModelInfo>& rows) {
    std::string text;
    for (const NotificationModelInfo& info : rows) {
        const NotificationModel& n = info.notification;
        text += std::to_string(n.id().value_or(-1)) + '|' + n.customerId().value_or("-") + '|' +
                std::to_string(n.createdDate.time_since_epoch().count()) + '|' + n.version + '|' + n.analyticsTag +
                '|' + n.title.value_or("-") + '|' + n.body.value_or("-") + '|' + n.bannerUrl.value_or("-") + '|' +
                std::to_string(n.isMarketing) + '|' + std::to_string(n.appId.value_or(-1)) + '|' +
                std::to_string(rawValue(n.status)) + '|' + std::to_string(rawValue(n.notificationKind));
        if (const auto& b = info.actionButton) {
            text += '|' + std::to_string(b->id().value_or(-1)) + '|' + b->buttonId.value_or("-") + '|' +
                    b->title.value_or("-") + '|' + std::to_string(b->visible) + '|' +
                    std::to_string(b->notificationId.value_or(-1)) + '|' +
                    std::to_string(b->actionKind ? rawValue(*b->actionKind) : -1) + '|' +
                    std::string(b->userAction ? b->userAction->begin() : Bytes().begin(),
                                b->userAction ? b->userAction->end() : Bytes().end());
        }
        text += '\n';
    }
    return text;
}

std::string describeRows(const std::vector<RawInfo>& rows) {
    std::string text;
    for (const RawInfo& info : rows) {
        const RawNotification& n = info.notification;
        text +=
            std::to_string(n.id.value_or(-1)) + '|' + n.customerId.value_or("-") + '|' +
            std::to_string(std::chrono::floor<std::chrono::milliseconds>(n.createdDate.time_since_epoch()).count()) +
            '|' + n.version + '|' + n.analyticsTag + '|' + n.title.value_or("-") + '|' + n.body.value_or("-") + '|' +
            n.bannerUrl.value_or("-") + '|' + std::to_string(n.isMarketing) + '|' +
            std::to_string(n.appId.value_or(-1)) + '|' + std::to_string(n.status) + '|' +
            std::to_string(n.notificationKind);
        if (const auto& b = info.button) {
            text += '|' + std::to_string(b->id.value_or(-1)) + '|' + b->buttonId.value_or("-") + '|' +
                    b->title.value_or("-") + '|' + std::to_string(b->visible) + '|' +
                    std::to_string(b->notificationId.value_or(-1)) + '|' + std::to_string(b->actionKind.value_or(-1)) +
                    '|' +
                    std::string(b->userAction ? b->userAction->begin() : Bytes().begin(),
                                b->userAction ? b->userAction->end() : Bytes().end());
        }
        text += '\n';
    }
    return text;
}

// Whichever side of a case reads first leaves its result here; the other must read the same.
// Rows with equal dates may come in either order, so the lines are compared sorted.
void expectSameRows(const std::string& key, std::string rows) {
    static std::map<std::string, std::string> seen;
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (std::size_t end; (end = rows.find('\n', start)) != std::string::npos; start = end + 1) {
        lines.push_back(rows.substr(start, end - start));
    }
    std::sort(lines.begin(), lines.end());
    std::string sorted;
    for (const std::string& line : lines) sorted += line + '\n';
    const auto [entry, first] = seen.emplace(key, sorted);
    expect(first || entry->second == sorted, key + ": library and baseline read different rows");
}

// --- measuring ------------------------------------------------------------------------------

void expectCount(Maintenance& maintenance, std::int64_t expected, const std::string& what) {
    const std::int64_t actual = maintenance.count();
    expect(actual == expected, what + ": " + std::to_string(actual) + " rows instead of " + std::to_string(expected));
}

// One side of a pair: its operation, and what puts the table back after `restoreInterval` calls.
struct Side {
    std::function<void()> operation;
    std::function<void()> restore;
    std::int64_t restoreInterval;
};

// A pair being set up: the outer side's case registers its side and runs the other side's case
// (`partner`) inside its own, so both sides' stores are open when the second side arrives and
// the two are measured together. Which side is outer alternates from run to run: the two
// sides' data then take turns at the places in memory that come first, which otherwise favour
// one side by a few percent.
struct Pairing {
    bool libraryOuter;
    std::function<void()> partner;
    std::optional<Side> outer;
    bool done = false;
};

// How the binary measures (set from its command line in `main`).
struct Settings {
    // Count instructions instead of timing: each case makes `instructionCalls` calls, each under
    // callgrind's instrumentation (started and stopped around the call alone), and then dumps
    // callgrind's counters under the case's name. Run under
    // `valgrind --tool=callgrind --instr-atstart=no`.
    bool countInstructions = false;
    // The benchmark running now, e.g. "Library/fetch_all/10000".
    std::string running;
    // Set while a `Pair/<case>` benchmark runs.
    Pairing* pairing = nullptr;
};
Settings settings;
constexpr int instructionCalls = 3;

double secondsOf(const std::function<void()>& operation) {
    const auto start = std::chrono::steady_clock::now();
    operation();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Every iteration times one library call and one baseline call back to back, the side that goes
// first alternating, so that the machine's load and the warmth of the caches fall on both alike; the ratio of the two
// sums is reported per repetition (counter `ratio`), with each side's mean time per call.
void measurePair(benchmark::State& state, const Side& library, const Side& baseline) {
    double librarySeconds = 0;
    double baselineSeconds = 0;
    std::int64_t calls = 0;
    std::int64_t sinceLibraryRestore = 0;
    std::int64_t sinceBaselineRestore = 0;
    for (auto _ : state) {
        const bool libraryFirst = calls % 2 == 0;
        const double first = secondsOf(libraryFirst ? library.operation : baseline.operation);
        const double second = secondsOf(libraryFirst ? baseline.operation : library.operation);
        librarySeconds += libraryFirst ? first : second;
        baselineSeconds += libraryFirst ? second : first;
        ++calls;
        state.SetIterationTime(first + second);
        // The restores follow the calls' order, so that neither side always meets its own
        // freshly restored table.
        ++sinceLibraryRestore;
        ++sinceBaselineRestore;
        for (const bool libraryTurn : {libraryFirst, !libraryFirst}) {
            std::int64_t& since = libraryTurn ? sinceLibraryRestore : sinceBaselineRestore;
            const Side& side = libraryTurn ? library : baseline;
            if (since == side.restoreInterval) {
                side.restore();
                since = 0;
            }
        }
    }
    if (sinceLibraryRestore != 0) library.restore();
    if (sinceBaselineRestore != 0) baseline.restore();
    for (const auto& [side, name] :
         {std::pair(&library, "library_peak_bytes"), std::pair(&baseline, "baseline_peak_bytes")}) {
        AllocationProbe probe;
        side->operation();
        state.counters[name] = static_cast<double>(probe.peakBytes());
        side->restore();
    }
    state.counters["library_us"] = librarySeconds / static_cast<double>(calls) * 1e6;
    state.counters["baseline_us"] = baselineSeconds / static_cast<double>(calls) * 1e6;
    state.counters["ratio"] = librarySeconds / baselineSeconds;
}

// Runs `operation` once per iteration. `restore` runs with the clock stopped after every
// `restoreInterval` iterations. One untimed call with its restore comes first, so statements
// are prepared and connections open before timing starts; `check` runs after that call. In a
// pair, the side is handed over instead (see `Pairing`).
template <class Operation, class Restore, class Check>
void measure(benchmark::State& state, Operation&& operation, Restore&& restore, std::int64_t restoreInterval,
             Check&& check) {
    operation();
    check();
    restore();
    if (Pairing* pairing = settings.pairing) {
        Side side{operation, restore, restoreInterval};
        if (!pairing->outer) {
            pairing->outer.emplace(std::move(side));
            pairing->partner();
        } else {
            const Side& outer = *pairing->outer;
            measurePair(state, pairing->libraryOuter ? outer : side, pairing->libraryOuter ? side : outer);
            pairing->done = true;
        }
        return;
    }
    const bool counting = settings.countInstructions;
    std::int64_t sinceRestore = 0;
    for (auto _ : state) {
        if (counting) CALLGRIND_START_INSTRUMENTATION;
        operation();
        if (counting) CALLGRIND_STOP_INSTRUMENTATION;
        if (++sinceRestore == restoreInterval) {
            state.PauseTiming();
            restore();
            sinceRestore = 0;
            state.ResumeTiming();
        }
    }
    if (counting) {
        const std::string name = settings.running + " calls=" + std::to_string(state.iterations());
        CALLGRIND_DUMP_STATS_AT(name.c_str());
    }
    if (sinceRestore != 0) restore();
    AllocationProbe probe;
    operation();
    state.counters["peak_bytes"] = static_cast<double>(probe.peakBytes());
    state.counters["allocations"] = static_cast<double>(probe.allocationCount());
}

template <class Operation>
void measure(benchmark::State& state, Operation&& operation) {
    measure(
        state, operation, [] {}, 0, [] {});
}

// --- cases ----------------------------------------------------------------------------------

enum class Access { read, write };

struct Case {
    std::string name;
    Access access;
    std::function<void(benchmark::State&)> library;
    std::function<void(benchmark::State&)> baseline;
};

std::vector<Case> cases() {
    std::vector<Case> all;

    // Save of a new notification with a button: existence by content, INSERT, button INSERT.
    for (const int rows : {1'000, largeTable}) {
        const auto check = [rows](Maintenance& maintenance) { expectCount(maintenance, rows + 1, "after a save"); };
        all.push_back({"save_new/" + std::to_string(rows), Access::write,
                       [rows, check](benchmark::State& state) {
                           WorkingCopy file(Spread::twentyCustomers, rows);
                           auto store = openLibraryStore(file.path());
                           Maintenance maintenance(file.path());
                           const auto inputs =
                               toModelInfos(newNotifications(saveRestoreInterval, "9.new.", {}, false));
                           std::size_t next = 0;
                           measure(
                               state, [&] { store->save(inputs[next++ % inputs.size()]); },
                               [&] {
                                   maintenance.deleteAbove(rows);
                                   next = 0;
                               },
                               saveRestoreInterval, [&] { check(maintenance); });
                       },
                       [rows, check](benchmark::State& state) {
                           WorkingCopy file(Spread::twentyCustomers, rows);
                           RawStore store(file.path());
                           Maintenance maintenance(file.path());
                           const auto inputs = newNotifications(saveRestoreInterval, "9.new.", {}, false);
                           std::size_t next = 0;
                           measure(
                               state,
                               [&] {
                                   store.save(inputs[next++ % inputs.size()]);
                                   benchmark::DoNotOptimize(store.takeChangeMark());
                               },
                               [&] {
                                   maintenance.deleteAbove(rows);
                                   next = 0;
                               },
                               saveRestoreInterval, [&] { check(maintenance); });
                       }});
    }

    // Save of a notification whose content key is stored already: found, skipped.
    {
        const auto duplicate = [] {
            RawInfo row = middleRow();
            row.notification.id.reset();
            row.notification.title = "Another title";
            row.notification.createdDate = now();
            row.button->notificationId.reset();
            return row;
        };
        const auto check = [](Maintenance& maintenance) { expectCount(maintenance, largeTable, "after a duplicate"); };
        all.push_back({"save_duplicate/10000", Access::write,
                       [duplicate, check](benchmark::State& state) {
                           WorkingCopy file(Spread::twentyCustomers, largeTable);
                           auto store = openLibraryStore(file.path());
                           Maintenance maintenance(file.path());
                           const NotificationModelInfo input = toModelInfo(duplicate());
                           measure(
                               state, [&] { store->save(input); }, [] {}, 0, [&] { check(maintenance); });
                       },
                       [duplicate, check](benchmark::State& state) {
                           WorkingCopy file(Spread::twentyCustomers, largeTable);
                           RawStore store(file.path());
                           Maintenance maintenance(file.path());
                           const RawInfo input = duplicate();
                           measure(
                               state, [&] { store.save(input); }, [] {}, 0, [&] { check(maintenance); });
                       }});
    }

    // Everything, newest first, with buttons.
    for (const int rows : {100, 1'000, largeTable}) {
        all.push_back({"fetch_all/" + std::to_string(rows), Access::read,
                       [rows](benchmark::State& state) {
                           WorkingCopy file(Spread::twentyCustomers, rows);
                           auto store = openLibraryStore(file.path());
                           const auto all = store->fetchNotifications(std::nullopt);
                           expect(all.size() == static_cast<std::size_t>(rows), "fetch size");
                           expectSameRows("fetch_all/" + std::to_string(rows), describeRows(all));
                           measure(state, [&] {
                               auto result = store->fetchNotifications(std::nullopt);
                               benchmark::DoNotOptimize(result.data());
                           });
                       },
                       [rows](benchmark::State& state) {
                           WorkingCopy file(Spread::twentyCustomers, rows);
                           RawStore store(file.path());
                           const auto all = store.fetchNotifications(std::nullopt);
                           expect(all.size() == static_cast<std::size_t>(rows), "fetch size");
                           expectSameRows("fetch_all/" + std::to_string(rows), describeRows(all));
                           measure(state, [&] {
                               auto result = store.fetchNotifications(std::nullopt);
                               benchmark::DoNotOptimize(result.data());
                           });
                       }});
    }

    all.push_back({"fetch_10_ids/10000", Access::read,
                   [](benchmark::State& state) {
                       WorkingCopy file(Spread::twentyCustomers, largeTable);
                       auto store = openLibraryStore(file.path());
                       const std::optional<NotificationIDs> ids = toIDSet(tenIDs());
                       const auto found = store->fetchNotifications(ids);
                       expect(found.size() == 10, "fetch by ids");
                       expectSameRows("fetch_10_ids", describeRows(found));
                       measure(state, [&] {
                           auto result = store->fetchNotifications(ids);
                           benchmark::DoNotOptimize(result.data());
                       });
                   },
                   [](benchmark::State& state) {
                       WorkingCopy file(Spread::twentyCustomers, largeTable);
                       RawStore store(file.path());
                       const std::optional<std::vector<std::int64_t>> ids = tenIDs();
                       const auto found = store.fetchNotifications(ids);
                       expect(found.size() == 10, "fetch by ids");
                       expectSameRows("fetch_10_ids", describeRows(found));
                       measure(state, [&] {
                           auto result = store.fetchNotifications(ids);
                           benchmark::DoNotOptimize(result.data());
                       });
                   }});

    all.push_back({"count/10000", Access::read,
                   [](benchmark::State& state) {
                       WorkingCopy file(Spread::twentyCustomers, largeTable);
                       auto store = openLibraryStore(file.path());
                       expect(store->notificationsCount() == largeTable, "count");
                       measure(state, [&] { benchmark::DoNotOptimize(store->notificationsCount()); });
                   },
                   [](benchmark::State& state) {
                       WorkingCopy file(Spread::twentyCustomers, largeTable);
                       RawStore store(file.path());
                       expect(store.notificationsCount() == largeTable, "count");
                       measure(state, [&] { benchmark::DoNotOptimize(store.notificationsCount()); });
                   }});

    // The lookups find the row in the middle of the table (a scan of half of it).
    all.push_back({"contains_vantro/10000", Access::read,
                   [](benchmark::State& state) {
                       WorkingCopy file(Spread::twentyCustomers, largeTable);
                       auto store = openLibraryStore(file.path());
                       const std::string version = middleRow().notification.version;
                       expect(store->containsVantro(version), "containsVantro");
                       measure(state, [&] { benchmark::DoNotOptimize(store->containsVantro(version)); });
                   },
                   [](benchmark::State& state) {
                       WorkingCopy file(Spread::twentyCustomers, largeTable);
                       RawStore store(file.path());
                       const std::string version = middleRow().notification.version;
                       expect(store.containsVantro(version), "containsVantro");
                       measure(state, [&] { benchmark::DoNotOptimize(store.containsVantro(version)); });
                   }});

    all.push_back({"contains_notification/10000", Access::read,
                   [](benchmark::State& state) {
                       WorkingCopy file(Spread::twentyCustomers, largeTable);
                       auto store = openLibraryStore(file.path());
                       const RawNotification row = middleRow().notification;
                       const auto kind = static_cast<NotificationKind>(row.notificationKind);
                       const std::optional<std::string> version = row.version;
                       const auto ask = [&] {
                           return store->containsNotification(kind, *row.customerId, row.appId, version);
                       };
                       expect(ask(), "containsNotification");
                       measure(state, [&] { benchmark::DoNotOptimize(ask()); });
                   },
                   [](benchmark::State& state) {
                       WorkingCopy file(Spread::twentyCustomers, largeTable);
                       RawStore store(file.path());
                       const RawNotification row = middleRow().notification;
                       const std::optional<std::string> version = row.version;
                       const auto ask = [&] {
                           return store.containsNotification(row.notificationKind, *row.customerId, row.appId, version);
                       };
                       expect(ask(), "containsNotification");
                       measure(state, [&] { benchmark::DoNotOptimize(ask()); });
                   }});

    // Status and visibility alternate, so every call changes the rows it names.
    all.push_back({"update_status_100/10000", Access::write,
                   [](benchmark::State& state) {
                       WorkingCopy file(Spread::twentyCustomers, largeTable);
                       auto store = openLibraryStore(file.path());
                       const NotificationIDs ids = toIDSet(hundredIDs());
                       bool read = false;
                       measure(state, [&] {
                           read = !read;
                           store->updateStatus(ids, read ? NotificationStatus::read : NotificationStatus::shown);
                       });
                   },
                   [](benchmark::State& state) {
                       WorkingCopy file(Spread::twentyCustomers, largeTable);
                       RawStore store(file.path());
                       const std::vector<std::int64_t> ids = hundredIDs();
                       bool read = false;
                       measure(state, [&] {
                           read = !read;
                           store.updateStatus(ids, read ? 2 : 1);
                           benchmark::DoNotOptimize(store.takeChangeMark());
                       });
                   }});

    all.push_back({"update_button_visibility_100/10000", Access::write,
                   [](benchmark::State& state) {
                       WorkingCopy file(Spread::twentyCustomers, largeTable);
                       auto store = openLibraryStore(file.path());
                       const NotificationIDs ids = toIDSet(hundredIDs());
                       bool visible = true;
                       measure(state, [&] {
                           visible = !visible;
                           store->updateButtonVisibility(ids, visible);
                       });
                   },
                   [](benchmark::State& state) {
                       WorkingCopy file(Spread::twentyCustomers, largeTable);
                       RawStore store(file.path());
                       const std::vector<std::int64_t> ids = hundredIDs();
                       bool visible = true;
                       measure(state, [&] {
                           visible = !visible;
                           store.updateButtonVisibility(ids, visible);
                       });
                   }});

    // Deletion of 100 pairs as read back from the store; they are put back after each call.
    {
        const auto check = [](Maintenance& maintenance) { expectCount(maintenance, largeTable - 100, "after delete"); };
        all.push_back({"delete_100/10000", Access::write,
                       [check](benchmark::State& state) {
                           WorkingCopy file(Spread::twentyCustomers, largeTable);
                           auto store = openLibraryStore(file.path());
                           Maintenance maintenance(file.path());
                           maintenance.snapshot(inCondition(hundredIDs()));
                           const auto fetched = store->fetchNotifications(toIDSet(hundredIDs()));
                           const NotificationModelInfoSet pairs(fetched.begin(), fetched.end());
                           expect(pairs.size() == 100, "pairs to delete");
                           measure(
                               state, [&] { store->deleteNotifications(pairs); }, [&] { maintenance.restore(); }, 1,
                               [&] { check(maintenance); });
                       },
                       [check](benchmark::State& state) {
                           WorkingCopy file(Spread::twentyCustomers, largeTable);
                           RawStore store(file.path());
                           Maintenance maintenance(file.path());
                           maintenance.snapshot(inCondition(hundredIDs()));
                           const auto fetched = store.fetchNotifications(hundredIDs());
                           std::vector<const RawInfo*> pairs;
                           for (const RawInfo& info : fetched) pairs.push_back(&info);
                           expect(pairs.size() == 100, "pairs to delete");
                           measure(
                               state,
                               [&] {
                                   store.deleteNotifications(pairs);
                                   benchmark::DoNotOptimize(store.takeChangeMark());
                               },
                               [&] { maintenance.restore(); }, 1, [&] { check(maintenance); });
                       }});
    }

    // Every notification of one kind (a fifth of the table) with its buttons.
    {
        const auto kind = NotificationKind::appUpdate;
        const std::string condition = "\"notificationKind\" = " + std::to_string(rawValue(kind));
        const auto check = [](Maintenance& maintenance) {
            expectCount(maintenance, largeTable - largeTable / 5, "after deleting a kind");
        };
        all.push_back({"delete_all_of_kind/10000", Access::write,
                       [kind, condition, check](benchmark::State& state) {
                           WorkingCopy file(Spread::twentyCustomers, largeTable);
                           auto store = openLibraryStore(file.path());
                           Maintenance maintenance(file.path());
                           maintenance.snapshot(condition);
                           measure(
                               state, [&] { store->deleteAllNotifications(kind); }, [&] { maintenance.restore(); }, 1,
                               [&] { check(maintenance); });
                       },
                       [kind, condition, check](benchmark::State& state) {
                           WorkingCopy file(Spread::twentyCustomers, largeTable);
                           RawStore store(file.path());
                           Maintenance maintenance(file.path());
                           maintenance.snapshot(condition);
                           measure(
                               state,
                               [&] {
                                   store.deleteAllNotifications(rawValue(kind));
                                   benchmark::DoNotOptimize(store.takeChangeMark());
                               },
                               [&] { maintenance.restore(); }, 1, [&] { check(maintenance); });
                       }});
    }

    // A batch of 100 new notifications (with ids, so none collapse) into 1,000 stored: 100
    // saves, then the pruning pass, which finds nothing to delete (55 per customer, all recent).
    {
        constexpr int rows = 1'000;
        static constexpr std::int64_t firstID = 1'000'001;
        const auto check = [](Maintenance& maintenance) { expectCount(maintenance, rows + 100, "after receive"); };
        all.push_back({"updater_receive_100/1000", Access::write,
                       [check](benchmark::State& state) {
                           WorkingCopy file(Spread::twentyCustomers, rows);
                           auto store = openLibraryStore(file.path());
                           auto updater = std::make_shared<NotificationUpdaterImpl>(store);
                           Maintenance maintenance(file.path());
                           const auto batch = toModelInfos(newNotifications(100, "9.batch.", firstID, true));
                           measure(
                               state, [&] { updater->receive(batch); }, [&] { maintenance.deleteAbove(rows); }, 1,
                               [&] { check(maintenance); });
                       },
                       [check](benchmark::State& state) {
                           WorkingCopy file(Spread::twentyCustomers, rows);
                           RawStore store(file.path());
                           Maintenance maintenance(file.path());
                           const auto batch = newNotifications(100, "9.batch.", firstID, true);
                           measure(
                               state,
                               [&] {
                                   rawReceive(store, batch);
                                   benchmark::DoNotOptimize(store.takeChangeMark());
                               },
                               [&] { maintenance.deleteAbove(rows); }, 1, [&] { check(maintenance); });
                       }});
    }

    // The pruning pass over 10,000 rows with nothing to delete: one read and the grouping.
    {
        const auto check = [](Maintenance& maintenance) { expectCount(maintenance, largeTable, "after clean-up"); };
        all.push_back({"cleanup_nothing/10000", Access::read,
                       [check](benchmark::State& state) {
                           WorkingCopy file(Spread::withinLimits, largeTable);
                           auto store = openLibraryStore(file.path());
                           auto updater = std::make_shared<NotificationUpdaterImpl>(store);
                           Maintenance maintenance(file.path());
                           measure(
                               state, [&] { updater->cleanUp(); }, [] {}, 0, [&] { check(maintenance); });
                       },
                       [check](benchmark::State& state) {
                           WorkingCopy file(Spread::withinLimits, largeTable);
                           RawStore store(file.path());
                           Maintenance maintenance(file.path());
                           measure(
                               state, [&] { rawCleanUp(store); }, [] {}, 0, [&] { check(maintenance); });
                       }});
    }

    // The pruning pass over 10,000 rows that deletes 2,000 (1,000 over the per-customer limit,
    // 1,000 too old); they are put back after each call.
    {
        const auto check = [](Maintenance& maintenance) { expectCount(maintenance, largeTable - 2'000, "after pruning"); };
        all.push_back({"cleanup_2000/10000", Access::write,
                       [check](benchmark::State& state) {
                           WorkingCopy file(Spread::twoThousandToPrune, largeTable);
                           auto store = openLibraryStore(file.path());
                           auto updater = std::make_shared<NotificationUpdaterImpl>(store);
                           Maintenance maintenance(file.path());
                           maintenance.snapshot(inCondition(rowsToPrune(largeTable)));
                           measure(
                               state, [&] { updater->cleanUp(); }, [&] { maintenance.restore(); }, 1,
                               [&] { check(maintenance); });
                       },
                       [check](benchmark::State& state) {
                           WorkingCopy file(Spread::twoThousandToPrune, largeTable);
                           RawStore store(file.path());
                           Maintenance maintenance(file.path());
                           maintenance.snapshot(inCondition(rowsToPrune(largeTable)));
                           measure(
                               state,
                               [&] {
                                   rawCleanUp(store);
                                   benchmark::DoNotOptimize(store.takeChangeMark());
                               },
                               [&] { maintenance.restore(); }, 1, [&] { check(maintenance); });
                       }});
    }

    // Opening a store on an existing file of 10,000 rows, no other connection open: the writer,
    // its pragmas and the schema check. Closing happens with the clock stopped.
    all.push_back(
        {"open/10000", Access::write,
         [](benchmark::State& state) {
             WorkingCopy file(Spread::twentyCustomers, largeTable);
             const NotificationDatabaseConfig config(file.path(), storeConfiguration());
             std::shared_ptr<NotificationDatabaseImpl> store;
             measure(
                 state, [&] { store = NotificationDatabaseImpl::create(config); }, [&] { store.reset(); }, 1, [] {});
         },
         [](benchmark::State& state) {
             WorkingCopy file(Spread::twentyCustomers, largeTable);
             std::unique_ptr<RawStore> store;
             measure(
                 state, [&] { store = std::make_unique<RawStore>(file.path()); }, [&] { store.reset(); }, 1, [] {});
         }});

    return all;
}

// A failure inside a case ends that case with an error instead of the process.
std::function<void(benchmark::State&)> guarded(std::string name, std::function<void(benchmark::State&)> body,
                                               Access access) {
    return [name = std::move(name), body = std::move(body), access](benchmark::State& state) {
        settings.running = name;
        try {
            body(state);
            state.SetLabel(access == Access::write ? "write" : "read");
        } catch (const std::exception& error) {
            state.SkipWithError(error.what());
        }
    };
}

// `Pair/<case>`: one side's case, with the other side's case run inside it (see `Pairing`).
std::function<void(benchmark::State&)> paired(const Case& entry) {
    return [entry, runs = std::make_shared<int>(0)](benchmark::State& state) {
        Pairing pairing;
        pairing.libraryOuter = (*runs)++ % 2 == 0;
        pairing.partner = [&] { (pairing.libraryOuter ? entry.baseline : entry.library)(state); };
        settings.pairing = &pairing;
        settings.running = "Pair/" + entry.name;
        try {
            (pairing.libraryOuter ? entry.library : entry.baseline)(state);
            state.SetLabel(entry.access == Access::write ? "write" : "read");
        } catch (const std::exception& error) {
            state.SkipWithError(error.what());
        }
        settings.pairing = nullptr;
        if (!pairing.done) state.SkipWithError("the two sides did not meet");
    };
}

}  // namespace

void registerStoreBenchmarks() {
    for (Case& entry : cases()) {
        for (const bool library : {true, false}) {
            const std::string name = (library ? "Library/" : "Baseline/") + entry.name;
            auto* benchmark = benchmark::RegisterBenchmark(
                name.c_str(), guarded(name, library ? entry.library : entry.baseline, entry.access));
            benchmark->UseRealTime()->Unit(benchmark::kMicrosecond);
            if (settings.countInstructions) benchmark->Iterations(instructionCalls)->Repetitions(1);
        }
        if (settings.countInstructions) continue;
        benchmark::RegisterBenchmark(("Pair/" + entry.name).c_str(), paired(entry))
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond);
    }
}

}  // namespace notificationdb::bench

int main(int argc, char** argv) {
    using namespace notificationdb::bench;
    // The store schedules a notice on the main queue one second after each committed change of
    // "notification". Posting it is not store work and nothing drives the queue here, so the
    // scheduled jobs are dropped instead of piling up.
    notificationdb::MainQueue::main().setScheduler([](auto /*deadline*/, auto /*job*/) {});

    // Repetitions of all cases run in random order, so that a change in the machine's load during
    // the run falls on all cases alike. A flag given on the command line comes later and wins.
    std::vector<char*> arguments(argv, argv + argc);
    std::erase_if(arguments, [](char* argument) {
        settings.countInstructions = settings.countInstructions || std::string_view(argument) == "--instructions";
        return std::string_view(argument) == "--instructions";
    });
    std::string interleaving = "--benchmark_enable_random_interleaving=true";
    arguments.insert(arguments.begin() + (argc > 0 ? 1 : 0), interleaving.data());
    int argumentCount = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);

    registerStoreBenchmarks();
    benchmark::Initialize(&argumentCount, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(argumentCount, arguments.data())) return 1;
    int status = 0;
    try {
        benchmark::RunSpecifiedBenchmarks();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "notificationdb_benchmarks: %s\n", error.what());
        status = 1;
    }
    benchmark::Shutdown();
    removeWorkspace();
    return status;
}
