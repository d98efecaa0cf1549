#pragma once

// Data and files shared by the benchmark cases: a private temporary directory, prepared
// database files that each case copies before it opens them, the rows in them, and a
// maintenance connection that puts a case's rows back outside the timed region.

#include "RawStore.hpp"

#include <NotificationDatabase/NotificationModel/NotificationModelInfo.hpp>

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace notificationdb::bench {

// How the rows of a prepared file are spread over customers and dates.
enum class Spread {
    // 20 customers, every row between 8 and 1 days old.
    twentyCustomers,
    // 100 customers with 100 rows each, all recent: the pruning pass finds nothing to delete.
    withinLimits,
    // 70 customers with 100 recent rows, 10 with 200 recent rows (100 each over the limit) and
    // 10 with 100 rows 40 to 60 days old: the pruning pass deletes exactly 2,000 rows.
    twoThousandToPrune,
};

// The row with index `index` (id `index + 1`) of a prepared file of `rowCount` rows. Half the
// rows (even indexes) carry a button; kinds cycle through all five; every row has its own
// version, so each content key is unique.
RawInfo makeRow(Spread spread, int rowCount, int index, Timestamp now);

// The same values as the library's record pair.
NotificationModelInfo toModelInfo(const RawInfo& info);

// The process's scratch directory, removed by `removeWorkspace()`.
const std::filesystem::path& workspace();
void removeWorkspace();

// A database file with `rowCount` rows of `spread`, built once per process (schema made by the
// library itself) and then copied for each use.
const std::filesystem::path& preparedFile(Spread spread, int rowCount);
// Ids of the rows that pruning deletes in a file of `twoThousandToPrune`.
std::vector<std::int64_t> rowsToPrune(int rowCount);

// A fresh copy of a prepared file under a new name in the workspace; removed with its WAL and
// shared-memory files when it goes out of scope.
class WorkingCopy {
public:
    WorkingCopy(Spread spread, int rowCount);
    ~WorkingCopy();
    WorkingCopy(const WorkingCopy&) = delete;
    WorkingCopy& operator=(const WorkingCopy&) = delete;

    const std::filesystem::path& path() const noexcept { return path_; }

private:
    std::filesystem::path path_;
};

// A connection of its own on a working copy, used only outside the timed region: it keeps a
// snapshot of chosen rows (in an attached in-memory database) and puts them back, or removes
// rows that a case added.
class Maintenance {
public:
    explicit Maintenance(const std::filesystem::path& path);
    ~Maintenance();
    Maintenance(const Maintenance&) = delete;
    Maintenance& operator=(const Maintenance&) = delete;

    // Remembers the notifications matching `condition` (an SQL condition on "notification")
    // and their buttons.
    void snapshot(const std::string& condition);
    // Inserts the remembered rows again, with their ids, where they are missing.
    void restore();
    // Deletes the notifications with an id above `id`, with their buttons.
    void deleteAbove(std::int64_t id);
    std::int64_t count();

private:
    void execute(const std::string& sql);

    sqlite3* db_ = nullptr;
};

// "[1,2,3]"
std::string idList(const std::vector<std::int64_t>& ids);

}  // namespace notificationdb::bench
