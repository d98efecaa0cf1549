// The SQLite access layer: connections and statements, the pool's transactions, locking between
// processes, reader connections and region observation.

#include <NotificationDatabase/DatabaseError.hpp>
#include <NotificationDatabase/Database/DatabasePool.hpp>

#include "TestSupport.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <thread>

namespace notificationdb {
namespace {

using namespace testing;
using namespace std::chrono_literals;

// Bound after which a test stops waiting for another thread instead of hanging.
constexpr auto watchdog = 10s;

std::int64_t integer(Connection& connection, std::string_view sql) {
    auto statement = connection.cachedStatement(sql);
    if (!statement->step()) throw std::runtime_error("no row for " + std::string(sql));
    return statement->row().int64(0);
}

std::int64_t rowCount(DatabasePool& pool) {
    return pool.read([](Connection& connection) { return integer(connection, "SELECT count(*) FROM t"); });
}

class DatabasePoolTest : public ::testing::Test {
protected:
    // A read-write pool on a file with the table "t" (one row) that the lock-holding child uses.
    DatabasePool& makeFileWithTable() {
        pool_ = std::make_unique<DatabasePool>(path, writerConfiguration());
        pool_->write([](Connection& connection) {
            connection.execute("CREATE TABLE t (v TEXT NOT NULL); INSERT INTO t (v) VALUES ('first')");
        });
        return *pool_;
    }

    TemporaryDirectory directory;
    const std::filesystem::path path = directory / "pool.sqlite";

private:
    std::unique_ptr<DatabasePool> pool_;
};

TEST_F(DatabasePoolTest, ConnectionsOpenAsConfigured) {
    EXPECT_EQ(caught<DatabaseError>([&] { DatabasePool pool(path, readerConfiguration()); }).value().resultCode(),
              SQLITE_CANTOPEN);
    EXPECT_FALSE(std::filesystem::exists(path));

    DatabasePool& writer = makeFileWithTable();
    const auto insert = [](Connection& connection) { connection.execute("INSERT INTO t (v) VALUES ('x')"); };
    // Readers of a read-write pool open the file read-only too.
    EXPECT_EQ(caught<DatabaseError>([&] { writer.read(insert); }).value().resultCode(), SQLITE_READONLY);

    DatabasePool reading(path, readerConfiguration());
    EXPECT_EQ(rowCount(reading), 1);
    // The writer of a read-only pool reads inside write() but cannot change anything.
    EXPECT_EQ(reading.write([](Connection& connection) { return integer(connection, "SELECT count(*) FROM t"); }), 1);
    EXPECT_EQ(caught<DatabaseError>([&] { reading.write(insert); }).value().resultCode(), SQLITE_READONLY);
    EXPECT_EQ(rowCount(writer), 1);

    // Foreign keys are enforced on every connection; the file is in WAL mode.
    auto foreignKeys = [](Connection& connection) { return integer(connection, "PRAGMA foreign_keys"); };
    for (DatabasePool* pool : {&writer, &reading}) {
        EXPECT_EQ(pool->write(foreignKeys), 1);
        EXPECT_EQ(pool->read(foreignKeys), 1);
    }
    EXPECT_EQ(RawDatabase(path).scalar("PRAGMA journal_mode"), "wal");
}

TEST_F(DatabasePoolTest, WriteCommitsOnReturnAndRollsBackOnAnyFailure) {
    DatabasePool& pool = makeFileWithTable();
    const auto id = pool.write([](Connection& connection) {
        connection.execute("INSERT INTO t (v) VALUES ('second')");
        return connection.lastInsertedRowID();
    });
    EXPECT_EQ(RawDatabase(path).scalar("SELECT v FROM t WHERE rowid = " + std::to_string(id)), "second");

    EXPECT_THROW(pool.write([](Connection& connection) {
        connection.execute("INSERT INTO t (v) VALUES ('abandoned')");
        throw std::logic_error("abandon");
    }),
                 std::logic_error);
    const auto failed = caught<DatabaseError>([&] {
        pool.write([](Connection& connection) {
            connection.execute("INSERT INTO t (v) VALUES ('before the failure')");
            connection.execute("INSERT INTO t (v) VALUES (NULL)");
        });
    });
    EXPECT_EQ(failed.value().extendedResultCode(), SQLITE_CONSTRAINT_NOTNULL);
    EXPECT_EQ(rowCount(pool), 2);
    // The writer was not left inside a transaction: the next write begins and commits.
    pool.write([](Connection& connection) { connection.execute("INSERT INTO t (v) VALUES ('third')"); });
    EXPECT_EQ(rowCount(pool), 3);
}

TEST_F(DatabasePoolTest, ReaderSeesTheLastCommittedStateWhileAWriteIsOpen) {
    DatabasePool& pool = makeFileWithTable();
    std::promise<void> inserted;
    std::promise<void> readDone;
    std::shared_future<void> readDoneFuture = readDone.get_future().share();
    std::thread writer([&] {
        pool.write([&](Connection& connection) {
            connection.execute("INSERT INTO t (v) VALUES ('uncommitted')");
            inserted.set_value();
            readDoneFuture.wait();
        });
    });
    inserted.get_future().wait();
    auto reading = std::async(std::launch::async, [&] { return rowCount(pool); });
    const bool readFinished = reading.wait_for(watchdog) == std::future_status::ready;
    readDone.set_value();
    writer.join();
    ASSERT_TRUE(readFinished) << "the read waited for the open write transaction";
    EXPECT_EQ(reading.get(), 1);
    EXPECT_EQ(rowCount(pool), 2);
}

TEST_F(DatabasePoolTest, AtMostFiveReadersAndReleaseMemoryClosesOnlyIdleOnes) {
    DatabasePool& pool = makeFileWithTable();
    std::mutex mutex;
    std::condition_variable changed;
    int inside = 0;
    int mostInside = 0;
    bool release = false;
    std::vector<std::thread> readers;
    for (int i = 0; i < 6; ++i) {
        readers.emplace_back([&] {
            pool.read([&](Connection& connection) {
                integer(connection, "SELECT count(*) FROM t");
                std::unique_lock lock(mutex);
                mostInside = std::max(mostInside, ++inside);
                changed.notify_all();
                changed.wait_for(lock, watchdog, [&] { return release; });
                --inside;
            });
        });
    }
    {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(changed.wait_for(lock, watchdog, [&] { return inside == 5; }));
    }
    // Gives a sixth reader the chance to slip past the limit; with the limit kept it waits.
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(pool.openReaderCount(), 5);
    pool.releaseMemory();
    EXPECT_EQ(pool.openReaderCount(), 5) << "readers in use were closed";
    {
        std::lock_guard lock(mutex);
        EXPECT_EQ(inside, 5);
        release = true;
    }
    changed.notify_all();
    for (auto& reader : readers) reader.join();
    EXPECT_EQ(mostInside, 5);
    EXPECT_EQ(pool.openReaderCount(), 5);

    pool.releaseMemory();
    EXPECT_EQ(pool.openReaderCount(), 0);
    EXPECT_EQ(rowCount(pool), 1);
    EXPECT_EQ(pool.openReaderCount(), 1);

    DatabasePool keeping(path, readerConfiguration());
    EXPECT_EQ(rowCount(keeping), 1);
    keeping.releaseMemory();
    EXPECT_EQ(keeping.openReaderCount(), 1);
}

TEST_F(DatabasePoolTest, WriterMeetsAnotherProcesssLockAccordingToItsBusyMode) {
    makeFileWithTable();
    DatabasePool patient(path, writerConfiguration(BusyMode::timeout(10.0)));
    DatabasePool impatient(path, writerConfiguration(BusyMode::immediateError()));
    std::vector<int> tries;
    DatabasePool asking(path, writerConfiguration(BusyMode::callback([&](int numberOfTries) {
                            tries.push_back(numberOfTries);
                            return numberOfTries < 3;
                        })));
    auto insert = [](Connection& connection) { connection.execute("INSERT INTO t (v) VALUES ('parent')"); };

    {
        ChildProcess holder(childProgram("hold_lock"), {path.string(), "60000"});
        ASSERT_EQ(holder.readLine(), "locked");
        EXPECT_EQ(caught<DatabaseError>([&] { impatient.write(insert); }).value().resultCode(), SQLITE_BUSY);
        EXPECT_EQ(caught<DatabaseError>([&] { asking.write(insert); }).value().resultCode(), SQLITE_BUSY);
        EXPECT_EQ(tries, (std::vector<int>{0, 1, 2, 3}));
        // Readers are not held up by the lock and do not see the uncommitted row.
        EXPECT_EQ(rowCount(impatient), 1);
        holder.kill();
        holder.wait();
    }

    ChildProcess holder(childProgram("hold_lock"), {path.string(), "500"});
    ASSERT_EQ(holder.readLine(), "locked");
    EXPECT_NO_THROW(patient.write(insert));
    EXPECT_EQ(holder.readLine(), "released");
    EXPECT_EQ(holder.wait(), 0);
    EXPECT_EQ(RawDatabase(path).query("SELECT v FROM t ORDER BY rowid"), (Rows{{"first"}, {"child"}, {"parent"}}));
}

TEST_F(DatabasePoolTest, ObservationReportsEachCommittedTransactionThatChangedATrackedTable) {
    DatabasePool pool(path, writerConfiguration());
    pool.write([](Connection& connection) {
        connection.execute("CREATE TABLE tracked (id INTEGER PRIMARY KEY, v NOT NULL); CREATE TABLE other (v)");
        // Prepared and cached before anyone observes the table.
        connection.cachedStatement("DELETE FROM tracked")->execute();
    });
    RawDatabase raw(path);
    std::vector<std::string> seenRows;
    std::vector<std::string> errors;
    std::thread::id handlerThread;
    int otherChanges = 0;
    int failingCalls = 0;
    auto observation = pool.observe(
        {"TRACKED"},
        [&] {
            handlerThread = std::this_thread::get_id();
            seenRows.push_back(raw.scalar("SELECT count(*) FROM tracked"));
        },
        [&](const std::exception& error) { errors.emplace_back(error.what()); });
    auto otherObservation = pool.observe({"other"}, [&] { ++otherChanges; }, {});
    auto failing = pool.observe(
        {"tracked"},
        [&] {
            if (++failingCalls == 1) throw std::runtime_error("observer failed");
        },
        [&](const std::exception& error) { errors.push_back(std::string("second: ") + error.what()); });

    pool.write([](Connection& connection) {
        connection.execute("INSERT INTO tracked (v) VALUES (1); INSERT INTO tracked (v) VALUES (2)");
        connection.execute("UPDATE tracked SET v = 3");
    });
    // Called once, after the commit: another connection already sees both rows.
    EXPECT_EQ(seenRows, std::vector<std::string>{"2"});
    EXPECT_EQ(errors, std::vector<std::string>{"second: observer failed"});
    EXPECT_EQ(otherChanges, 0);

    pool.write([](Connection& connection) { connection.execute("INSERT INTO other (v) VALUES (1)"); });
    EXPECT_THROW(pool.write([](Connection& connection) {
        connection.execute("INSERT INTO tracked (v) VALUES (4)");
        throw std::runtime_error("rolled back");
    }),
                 std::runtime_error);
    // Failed statements undo their own changes; the transaction commits with "other" only.
    pool.write([](Connection& connection) {
        EXPECT_THROW(connection.execute("INSERT INTO tracked (v) VALUES (5), (NULL)"), DatabaseError);
        auto statement = connection.cachedStatement("INSERT INTO tracked (v) VALUES (?), (?)");
        statement->bind(1, 6);
        statement->bindNull(2);
        EXPECT_THROW(statement->execute(), DatabaseError);
        connection.execute("INSERT INTO other (v) VALUES (2)");
    });
    EXPECT_EQ(seenRows, std::vector<std::string>{"2"});
    EXPECT_EQ(otherChanges, 2);
    EXPECT_EQ(raw.scalar("SELECT count(*) FROM tracked"), "2");

    // Of several statements run at once, those before the failing one keep their changes.
    pool.write([](Connection& connection) {
        EXPECT_THROW(connection.execute("INSERT INTO tracked (v) VALUES (9); INSERT INTO tracked (v) VALUES (NULL)"),
                     DatabaseError);
    });
    EXPECT_EQ(seenRows, (std::vector<std::string>{"2", "3"}));
    EXPECT_EQ(failingCalls, 1) << "a failed observation was not ended";

    // Commits of another pool on the same file are not this pool's to report.
    DatabasePool(path, writerConfiguration()).write([](Connection& connection) {
        connection.execute("INSERT INTO tracked (v) VALUES (7)");
    });
    EXPECT_EQ(seenRows.size(), 2U);

    // An unconditional delete empties the table without visiting rows unless the layer
    // prevents it; the cached statement must have been prepared again for the observation.
    std::thread::id writingThread;
    std::thread([&] {
        writingThread = std::this_thread::get_id();
        pool.write([](Connection& connection) { connection.cachedStatement("DELETE FROM tracked")->execute(); });
    }).join();
    EXPECT_EQ(seenRows, (std::vector<std::string>{"2", "3", "0"}));
    EXPECT_EQ(handlerThread, writingThread);
    EXPECT_EQ(failingCalls, 1);
    EXPECT_EQ(errors.size(), 1U);

    observation.reset();
    failing.reset();
    pool.write([](Connection& connection) { connection.execute("INSERT INTO tracked (v) VALUES (8)"); });
    EXPECT_EQ(seenRows.size(), 3U);
    EXPECT_EQ(failingCalls, 1);

    // A handle may outlive its pool.
    auto orphan = std::make_unique<DatabasePool>(directory / "other.sqlite", writerConfiguration());
    auto orphanObservation = orphan->observe({"tracked"}, [] {}, {});
    orphan.reset();
    orphanObservation.reset();
}

// A failing statement's error names its SQL but none of its bound values; the same SQL run while
// its cached statement is in use gets a statement of its own.
TEST_F(DatabasePoolTest, StatementsKeepBoundValuesPrivateAndCachedOnesRunIndependently) {
    DatabasePool& pool = makeFileWithTable();
    pool.write([](Connection& connection) {
        connection.execute("INSERT INTO t (v) VALUES ('second')");
        auto secret = connection.cachedStatement("INSERT INTO t (rowid, v) VALUES (?, ?)");
        secret->bind(1, std::int64_t{1});
        secret->bind(2, std::string_view("secret-value"));
        const auto duplicate = caught<DatabaseError>([&] { secret->execute(); }).value();
        EXPECT_EQ(duplicate.extendedResultCode(), SQLITE_CONSTRAINT_ROWID);
        EXPECT_EQ(duplicate.sql(), "INSERT INTO t (rowid, v) VALUES (?, ?)");
        EXPECT_THAT(duplicate.what(), ::testing::Not(::testing::HasSubstr("secret-value")));
    });
    pool.read([](Connection& connection) {
        const std::string sql = "SELECT v FROM t ORDER BY rowid";
        auto outer = connection.cachedStatement(sql);
        ASSERT_TRUE(outer->step());
        {
            auto inner = connection.cachedStatement(sql);
            ASSERT_TRUE(inner->step());
            ASSERT_TRUE(inner->step());
            EXPECT_EQ(inner->row().text(0), "second");
        }
        EXPECT_EQ(outer->row().text(0), "first");
        ASSERT_TRUE(outer->step());
        EXPECT_FALSE(outer->step());
    });
}

}  // namespace
}  // namespace notificationdb
