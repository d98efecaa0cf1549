#pragma once

// The database file as SQLite itself shows it, through a read-only connection of the tool's own:
// for what the store does not tell (the tables a file holds, SQLite's own checks, whether a
// change really landed). It never writes, and it sees each statement's latest commit.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace notificationdb::tool {

class SQLiteFile {
public:
    // A bound parameter: an integer or a text.
    using Parameter = std::variant<std::int64_t, std::string>;

    // One result row, valid inside the callback that receives it.
    class Row {
    public:
        explicit Row(sqlite3_stmt* statement) : statement_(statement) {}
        bool isNull(int column) const;
        std::int64_t integer(int column) const;
        // NULL gives nullopt; any other value its text form.
        std::optional<std::string> text(int column) const;

    private:
        sqlite3_stmt* statement_;
    };

    // Opens `path` read-only, waiting up to 2.0 s for another connection's lock; reads nothing
    // yet. Throws `DatabaseError` when SQLite refuses.
    explicit SQLiteFile(const std::filesystem::path& path);
    ~SQLiteFile();
    SQLiteFile(const SQLiteFile&) = delete;
    SQLiteFile& operator=(const SQLiteFile&) = delete;

    // Runs `sql` with `parameters` bound in order and hands every row to `onRow`. Throws
    // `DatabaseError` on failure, after the rows read before it.
    void each(std::string_view sql, const std::vector<Parameter>& parameters,
              const std::function<void(const Row&)>& onRow);
    // The first column of the first row; nullopt when there is no row or it is NULL.
    std::optional<std::int64_t> integer(std::string_view sql, const std::vector<Parameter>& parameters = {});
    // The first column of every row as text ("" for NULL).
    std::vector<std::string> texts(std::string_view sql, const std::vector<Parameter>& parameters = {});

    // The names of the file's own tables (not SQLite's "sqlite_..." ones), in schema order.
    std::vector<std::string> tableNames();

private:
    sqlite3* connection_ = nullptr;
};

// Whether `names` holds `name`, compared as SQLite compares names (ASCII letters in either case).
bool holdsName(const std::vector<std::string>& names, std::string_view name);

// The ids as a JSON array, for `json_each(?)` in a statement of the tool's own.
std::string jsonArray(const std::vector<std::int64_t>& ids);

}  // namespace notificationdb::tool
