// A writer process killed with SIGKILL at random moments, again and again, on one file: after
// every kill the file opens, is intact, and holds every change the writer reported committed.
//
// The number of kills scales with NDB_STRESS_SCALE (a positive factor, 1 by default).

#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/NotificationDatabaseConfig.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include "StressSupport.hpp"
#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <signal.h>
#include <unistd.h>

namespace notificationdb {
namespace {

using testing::ChildProcess;
using testing::childProgram;
using testing::LogCapture;
using testing::makeStressDirectory;
using testing::RawDatabase;
using testing::scaled;
using testing::ScopedEnvironment;
using testing::TemporaryDirectory;

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.rfind(prefix, 0) == 0;
}

// Drops the change notices of the stores opened here; restores the main queue when it goes.
struct DroppedNotices {
    DroppedNotices() {
        MainQueue::main().setScheduler([](auto, auto) {});
    }
    ~DroppedNotices() { MainQueue::main().setScheduler({}); }
    DroppedNotices(const DroppedNotices&) = delete;
    DroppedNotices& operator=(const DroppedNotices&) = delete;
};

struct Reported {
    std::set<std::string> committed;
    std::set<std::string> pruned;
    std::vector<std::string> other;  // failures and anything unexpected

    // Takes one line of the writer; returns whether it reported a change.
    bool take(const std::string& line) {
        if (startsWith(line, "committed ")) {
            committed.insert(line.substr(10));
            return true;
        }
        if (startsWith(line, "pruned ")) {
            pruned.insert(line.substr(7));
            return true;
        }
        if (line != "ready") other.push_back(line);
        return false;
    }
};

TEST(Crash, WriterKilledAtRandomMomentsLeavesAnIntactFileWithEveryReportedCommit) {
    const auto directory = makeStressDirectory();
    const auto path = *directory / "NotificationDatabase.sqlite";
    const int kills = scaled(20, 3);
    std::mt19937 random(std::random_device{}());
    // At least four changes per run, so that every run also prunes once (its fourth change).
    std::uniform_int_distribution<int> changesBeforeKill(4, 30);
    std::uniform_int_distribution<int> delayBeforeKill(0, 3000);

    Configuration configuration;
    configuration.busyMode = BusyMode::timeout(2.0);
    DroppedNotices droppedNotices;

    Reported reported;
    for (int run = 0; run < kills; ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        {
            ChildProcess writer(childProgram("rel_crash_writer"), {path.string(), std::to_string(run)});
            const int target = changesBeforeKill(random);
            int seen = 0;
            while (seen < target) {
                auto line = writer.readLine();
                ASSERT_TRUE(line.has_value()) << "the writer ended on its own after " << seen << " changes";
                if (reported.take(*line)) ++seen;
            }
            // Somewhere inside the next change, or between two of them.
            std::this_thread::sleep_for(std::chrono::microseconds(delayBeforeKill(random)));
            writer.kill(SIGKILL);
            EXPECT_EQ(writer.wait(), 128 + SIGKILL);
            // Lines the writer wrote before it died name changes that committed too.
            while (auto line = writer.readLine()) reported.take(*line);
        }
        ASSERT_EQ(reported.other, std::vector<std::string>{});

        LogCapture capture;
        std::shared_ptr<NotificationDatabaseImpl> store;
        ASSERT_NO_THROW(store = NotificationDatabaseImpl::create(NotificationDatabaseConfig(path, configuration)));
        RawDatabase raw(path);
        ASSERT_EQ(raw.scalar("PRAGMA integrity_check"), "ok");
        ASSERT_TRUE(raw.query("PRAGMA foreign_key_check").empty());

        std::map<std::string, int> titles;
        for (const auto& row : raw.query("SELECT title FROM notification")) ++titles[row[0]];
        for (const auto& key : reported.committed) ASSERT_EQ(titles[key], 1) << key << " reported committed";
        for (const auto& key : reported.pruned) ASSERT_EQ(titles.count(key), 0U) << key << " reported pruned";
        for (const auto& [title, count] : titles) ASSERT_EQ(count, 1) << title;
        // A button is written in its notification's transaction or not at all.
        ASSERT_EQ(raw.scalar("SELECT COUNT(*) FROM notification n WHERE (SELECT COUNT(*) FROM notificationButton b "
                             "WHERE b.notificationId = n.id AND b.buttonId = n.title) != 1"),
                  "0");
        ASSERT_EQ(raw.scalar("SELECT COUNT(*) FROM notificationButton WHERE notificationId IS NULL OR notificationId "
                             "NOT IN (SELECT id FROM notification)"),
                  "0");
        // The store reads everything back as records.
        const auto stored = store->fetchNotifications(std::nullopt);
        ASSERT_EQ(std::to_string(stored.size()), raw.scalar("SELECT COUNT(*) FROM notification"));
        ASSERT_EQ(capture.messages(), std::vector<std::string>{});
    }
    EXPECT_GE(reported.committed.size(), static_cast<std::size_t>(kills));
    EXPECT_FALSE(reported.pruned.empty());
}

}  // namespace
}  // namespace notificationdb
