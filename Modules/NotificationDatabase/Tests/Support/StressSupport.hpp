#pragma once

// Helpers shared by the stress tests (threads, processes, crashes) and their child programs.
//
// Writers save stress notifications: notification j of writer w is titled "<prefix><w>-<j>".
// Every tenth (j % 10 == 0) has the content key that all writers share for that j (customer
// "<prefix>shared", kind newApp, version "<prefix>shared-<j>", app j), so only one writer's copy
// may be stored; the others have keys of their own. Those with j % 3 != 0 carry a button whose
// buttonId repeats the title, so that a reader can tell whether it came with its notification.

#include "TestSupport.hpp"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <unistd.h>

namespace notificationdb::testing {

// `count` scaled by NDB_STRESS_SCALE (default 1), and never below `minimum`.
inline int scaled(int count, int minimum) {
    double factor = 1.0;
    if (const char* text = std::getenv("NDB_STRESS_SCALE")) factor = std::atof(text);
    if (!(factor > 0.0)) factor = 1.0;
    return std::max(minimum, static_cast<int>(count * factor));
}

// A fresh directory for a stress run's database file: below NDB_STRESS_TMPDIR when set, else
// on the memory-backed /dev/shm when there is one, else in the system's temporary directory.
// The file still goes through the kernel's file system, its locks and its shared memory like
// any other; only a commit's fsync, which costs milliseconds on a disk and which neither a race
// between threads or processes nor a killed process depends on, is free there.
inline std::unique_ptr<TemporaryDirectory> makeStressDirectory() {
    std::optional<ScopedEnvironment> base;
    if (const char* chosen = std::getenv("NDB_STRESS_TMPDIR")) {
        base.emplace("TMPDIR", std::string(chosen));
    } else if (::access("/dev/shm", W_OK | X_OK) == 0) {
        base.emplace("TMPDIR", std::string("/dev/shm"));
    }
    return std::make_unique<TemporaryDirectory>();
}

inline NotificationModelInfo stressNotification(const std::string& prefix, int writer, int j) {
    static constexpr NotificationKind kinds[] = {NotificationKind::default_, NotificationKind::newApp,
                                                 NotificationKind::appUpdate, NotificationKind::vantroUpdate,
                                                 NotificationKind::ai};
    const std::string title = prefix + std::to_string(writer) + "-" + std::to_string(j);
    const bool shared = j % 10 == 0;
    NotificationModel notification(std::nullopt, shared ? prefix + "shared" : prefix + "c" + std::to_string(writer),
                                   std::chrono::system_clock::now(),
                                   shared ? prefix + "shared-" + std::to_string(j) : title, "tag", title,
                                   "body of " + title, std::nullopt, j % 2 == 0,
                                   shared || j % 4 != 1 ? std::optional<std::int64_t>(j) : std::nullopt,
                                   NotificationStatus::new_, shared ? NotificationKind::newApp : kinds[j % 5]);
    std::optional<NotificationButton> button;
    if (j % 3 != 0) {
        button = NotificationButton(std::nullopt, title, "Open", true, std::nullopt, static_cast<UserActionKind>(j % 7),
                                    Bytes{0, 1, 0xff});
    }
    return {std::move(notification), std::move(button)};
}

inline int expectedStressRows(int writers, int perWriter) {
    const int sharedKeys = (perWriter + 9) / 10;
    return writers * (perWriter - sharedKeys) + sharedKeys;
}

// Adds to `broken` what a list read from the store breaks: every button comes with its own
// notification, and every stress notification saved with a button comes with it.
inline void checkStressList(const std::vector<NotificationModelInfo>& list, std::vector<std::string>& broken) {
    for (const auto& [notification, button] : list) {
        const std::string title = notification.title.value_or("?");
        if (!notification.id()) broken.push_back("a notification without id");
        if (button) {
            if (button->notificationId != notification.id()) broken.push_back("button of another with " + title);
            if (button->buttonId != notification.title)
                broken.push_back("button " + button->buttonId.value_or("?") + " with " + title);
        } else if (const auto dash = title.rfind('-');
                   dash != std::string::npos && std::atoi(title.c_str() + dash + 1) % 3 != 0) {
            broken.push_back(title + " without its button");
        }
    }
}

// Reads the count and the list of a store that only grows until `stop` is set, and once more
// after that: neither may fall below what an earlier read saw, and each list must pass
// `checkStressList`. Returns the first rules broken.
inline std::vector<std::string> readUntilStopped(NotificationDatabaseImpl& store, const std::atomic<bool>& stop) {
    std::vector<std::string> broken;
    std::int64_t seen = 0;
    for (bool last = false; !last && broken.size() < 10;) {
        last = stop.load();
        const std::int64_t count = store.notificationsCount();
        if (count < seen) broken.push_back("count went from " + std::to_string(seen) + " to " + std::to_string(count));
        seen = std::max(seen, count);
        const auto list = store.fetchNotifications(std::nullopt);
        const auto listed = static_cast<std::int64_t>(list.size());
        if (listed < seen) broken.push_back("list of " + std::to_string(listed) + " after " + std::to_string(seen));
        seen = std::max(seen, listed);
        checkStressList(list, broken);
    }
    return broken;
}

// What is wrong with the tables, whatever was saved or deleted: the file's integrity, buttons
// without their notification, and content keys that more than one row holds.
inline std::vector<std::string> tableProblems(const RawDatabase& raw) {
    std::vector<std::string> problems;
    if (raw.scalar("PRAGMA integrity_check") != "ok") problems.push_back("integrity check failed");
    if (!raw.query("PRAGMA foreign_key_check").empty()) problems.push_back("foreign key check failed");
    if (raw.scalar("SELECT COUNT(*) FROM notificationButton WHERE notificationId IS NULL OR notificationId NOT IN "
                   "(SELECT id FROM notification)") != "0") {
        problems.push_back("buttons without their notification");
    }
    if (!raw.query("SELECT 1 FROM notification WHERE notificationKind != 0 GROUP BY customerId, notificationKind, "
                   "version, appId HAVING COUNT(*) > 1")
             .empty()) {
        problems.push_back("content keys stored twice");
    }
    return problems;
}

// What is wrong with the tables after `writers` saved `perWriter` stress notifications each:
// besides `tableProblems`, every own-key notification must be stored once, each shared key once,
// and each stored notification saved with a button must have exactly that one.
inline std::vector<std::string> storedOnceProblems(const RawDatabase& raw, const std::string& prefix, int writers,
                                                   int perWriter) {
    auto problems = tableProblems(raw);
    const std::string rows = raw.scalar("SELECT COUNT(*) FROM notification");
    if (rows != std::to_string(expectedStressRows(writers, perWriter))) problems.push_back(rows + " rows");
    std::map<std::string, int> titles;
    for (const auto& row : raw.query("SELECT title FROM notification")) ++titles[row[0]];
    for (int w = 0; w < writers; ++w) {
        for (int j = 0; j < perWriter; ++j) {
            const std::string title = prefix + std::to_string(w) + "-" + std::to_string(j);
            if (j % 10 != 0 && titles[title] != 1)
                problems.push_back(title + " stored " + std::to_string(titles[title]) + " times");
        }
    }
    const std::string sharedKeys =
        raw.scalar("SELECT COUNT(DISTINCT version) FROM notification WHERE customerId = '" + prefix + "shared'");
    if (sharedKeys != std::to_string((perWriter + 9) / 10)) problems.push_back(sharedKeys + " shared keys");
    const std::string withButton = "CAST(substr(n.title, instr(n.title, '-') + 1) AS INTEGER) % 3 != 0";
    if (raw.scalar("SELECT COUNT(*) FROM notification n WHERE (SELECT COUNT(*) FROM notificationButton b WHERE "
                   "b.notificationId = n.id AND b.buttonId IS n.title) != (" +
                   withButton + ")") != "0" ||
        raw.scalar("SELECT COUNT(*) FROM notificationButton") !=
            raw.scalar("SELECT COUNT(*) FROM notification n WHERE " + withButton)) {
        problems.push_back("buttons that do not match their notifications");
    }
    return problems;
}

}  // namespace notificationdb::testing
