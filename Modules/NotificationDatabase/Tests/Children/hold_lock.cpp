// Holds the write lock of a database file for a while, as another program on the machine
// would: a plain SQLite connection inside BEGIN IMMEDIATE with one uncommitted row.
//
//   ndb_child_hold_lock <database path> <milliseconds>
//
// The file must hold a table "t" with a column "v". Prints "locked" once the lock is held and
// "released" after the commit.

#include <sqlite3.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <thread>

int main(int argc, char** argv) {
    if (argc < 3) {
        std::cerr << "usage: ndb_child_hold_lock <database path> <milliseconds>\n";
        return 2;
    }
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(argv[1], &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        std::cerr << "cannot open: " << sqlite3_errmsg(db) << '\n';
        return 1;
    }
    sqlite3_busy_timeout(db, 10000);
    char* error = nullptr;
    if (sqlite3_exec(db, "BEGIN IMMEDIATE; INSERT INTO t (v) VALUES ('child')", nullptr, nullptr, &error) !=
        SQLITE_OK) {
        std::cerr << "cannot lock: " << (error ? error : "?") << '\n';
        return 1;
    }
    std::cout << "locked" << std::endl;
    std::this_thread::sleep_for(std::chrono::milliseconds(std::atol(argv[2])));
    if (sqlite3_exec(db, "COMMIT", nullptr, nullptr, &error) != SQLITE_OK) {
        std::cerr << "cannot commit: " << (error ? error : "?") << '\n';
        return 1;
    }
    std::cout << "released" << std::endl;
    sqlite3_close(db);
    return 0;
}
