#pragma once

// `notificationdb check`: what a support engineer needs first on a user's file, found without
// changing it. SQLite's own integrity and foreign-key checks, the journal mode, the tables and
// the index against the ones the store creates, every row that the store cannot read (with its
// id and the store's reason), buttons that point at no notification, notifications with more
// than one button, and per customer the count, the oldest and newest date and what the next
// prune would remove.

#include "StoreLog.hpp"

#include <NotificationDatabase/NotificationDatabase.hpp>

#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>

namespace notificationdb::tool {

// Examines the file at `path` through a read-only connection of the tool's own and a read-only
// store that `openStore` opens (it may throw; the rows then go unread and that is reported).
// `log` must hear the store's logger. Writes the report to `out`, as one JSON object when `json`,
// and returns whether the file is sound: nothing damaged, missing or different from what the
// store creates (the journal mode, other tables and old notifications are only noted).
bool checkDatabase(const std::filesystem::path& path, StoreLog& log,
                   const std::function<std::shared_ptr<NotificationDatabaseImpl>()>& openStore, bool json,
                   std::ostream& out);

}  // namespace notificationdb::tool
