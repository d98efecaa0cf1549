#include <NotificationDatabase/Platform/DistributedNotificationCenter.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace notificationdb {
namespace {

using namespace std::chrono_literals;
using testing::ChildProcess;
using testing::LogCapture;
using testing::ScopedEnvironment;
using testing::TemporaryDirectory;

// Generous bound after which a test gives up waiting for the bus instead of hanging.
constexpr auto watchdogTimeout = 10s;

bool haveSessionBus() {
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    return address != nullptr && *address != '\0';
}

#define REQUIRE_SESSION_BUS()                                                           \
    do {                                                                                \
        if (!haveSessionBus()) {                                                        \
            GTEST_SKIP() << "DBUS_SESSION_BUS_ADDRESS is not set; run the tests under " \
                            "dbus-run-session to exercise the session bus";             \
        }                                                                               \
    } while (false)

// A notice name no other test or process on the bus uses.
std::string uniqueName(const std::string& purpose) {
    static std::atomic<int> counter{0};
    return "ndbTest_" + purpose + "_" + std::to_string(::getpid()) + "_" + std::to_string(counter++);
}

// Drives the main queue, where observers' handlers run, until `done` holds or the watchdog
// gives up. Returns whether `done` holds.
bool driveMainQueueUntil(const std::function<bool()>& done) {
    auto giveUp = std::chrono::steady_clock::now() + watchdogTimeout;
    while (!done() && std::chrono::steady_clock::now() < giveUp) {
        MainQueue::main().runFor(10ms);
    }
    return done();
}

std::vector<std::string> readAllLines(ChildProcess& child) {
    std::vector<std::string> lines;
    while (auto line = child.readLine()) {
        lines.push_back(*line);
    }
    return lines;
}

std::optional<std::filesystem::path> findProgram(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::stringstream directories(path != nullptr ? path : "/usr/bin:/bin");
    std::string directory;
    while (std::getline(directories, directory, ':')) {
        auto candidate = std::filesystem::path(directory) / name;
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return std::nullopt;
}

// Kills a child that has not finished by the deadline, so that a blocked read of its output
// ends instead of hanging the test.
class ChildWatchdog {
public:
    explicit ChildWatchdog(ChildProcess& child)
        : thread_([this, &child] {
              std::unique_lock lock(mutex_);
              if (!finished_.wait_for(lock, watchdogTimeout, [this] { return done_; })) {
                  child.kill();
              }
          }) {}
    ~ChildWatchdog() {
        {
            std::lock_guard lock(mutex_);
            done_ = true;
        }
        finished_.notify_all();
        thread_.join();
    }
    ChildWatchdog(const ChildWatchdog&) = delete;
    ChildWatchdog& operator=(const ChildWatchdog&) = delete;

private:
    std::mutex mutex_;
    std::condition_variable finished_;
    bool done_ = false;
    std::thread thread_;
};

// The cross-process path the store relies on: another process posts, this one hears every
// post, exactly once, on its main queue, and only for the name it observes.
TEST(PlatformNotificationCenter, ObserverHearsEveryPostOfAnotherProcess) {
    REQUIRE_SESSION_BUS();
    auto center = makeDBusNotificationCenter();
    auto name = uniqueName("fromChild");
    std::vector<std::string> heard;
    const auto mainThread = std::this_thread::get_id();
    bool onMainThread = true;
    auto token = center->addObserver(name, [&](const std::string& notice) {
        heard.push_back(notice);
        onMainThread = onMainThread && std::this_thread::get_id() == mainThread;
    });
    ASSERT_NE(token, nullptr);
    int otherHeard = 0;
    auto otherToken = center->addObserver(uniqueName("other"), [&](const std::string&) { ++otherHeard; });
    ASSERT_NE(otherToken, nullptr);

    ChildProcess child(testing::childProgram("post"), {name, "5"});
    EXPECT_EQ(readAllLines(child), std::vector<std::string>{"posted 5"}) << "the child logged a failure";
    EXPECT_EQ(child.wait(), 0);

    ASSERT_TRUE(driveMainQueueUntil([&] { return heard.size() >= 5; })) << "heard " << heard.size() << " of 5 posts";
    // A post of our own travels behind any duplicate of the child's posts on the observer's
    // connection; once it arrives, nothing of the child's is still in flight.
    center->post(name);
    ASSERT_TRUE(driveMainQueueUntil([&] { return heard.size() >= 6; }));
    EXPECT_EQ(heard.size(), 6U);
    EXPECT_EQ(heard, std::vector<std::string>(6, name));
    EXPECT_TRUE(onMainThread);
    EXPECT_EQ(otherHeard, 0);
}

// Posts of this process reach its own observers; dropping a token ends its deliveries at once,
// including those already waiting on the main queue, while other observers go on.
TEST(PlatformNotificationCenter, OwnPostsAreHeardUntilTheTokenIsDropped) {
    REQUIRE_SESSION_BUS();
    auto center = makeDBusNotificationCenter();
    auto name = uniqueName("inProcess");
    int first = 0;
    int second = 0;
    auto firstToken = center->addObserver(name, [&](const std::string&) { ++first; });
    auto secondToken = center->addObserver(name, [&](const std::string&) { ++second; });
    ASSERT_NE(firstToken, nullptr);
    ASSERT_NE(secondToken, nullptr);

    center->post(name);
    ASSERT_TRUE(driveMainQueueUntil([&] { return first >= 1 && second >= 1; }));
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 1);

    // Let both listeners schedule their handler for the next post, then drop one token before
    // the main queue runs anything.
    auto pendingBefore = MainQueue::main().pendingCount();
    center->post(name);
    auto giveUp = std::chrono::steady_clock::now() + watchdogTimeout;
    while (MainQueue::main().pendingCount() < pendingBefore + 2 && std::chrono::steady_clock::now() < giveUp) {
        std::this_thread::sleep_for(1ms);
    }
    ASSERT_GE(MainQueue::main().pendingCount(), pendingBefore + 2);
    firstToken.reset();
    MainQueue::main().runUntilIdle();
    EXPECT_EQ(first, 1) << "a dropped token's handler ran";
    EXPECT_EQ(second, 2);

    center->post(name);
    center->post(name);
    ASSERT_TRUE(driveMainQueueUntil([&] { return second >= 4; }));
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 4);
}

// What other programs on the bus see: the fixed path and interface, the notice name as the
// member, and no arguments. Observed by the bus's own monitor, independently of this library.
TEST(PlatformNotificationCenter, PostIsASignalWithoutArgumentsOnTheSessionBus) {
    REQUIRE_SESSION_BUS();
    auto monitorProgram = findProgram("dbus-monitor");
    if (!monitorProgram) {
        GTEST_SKIP() << "dbus-monitor is not installed";
    }

    auto center = makeDBusNotificationCenter();
    auto ready = uniqueName("monitorReady");
    auto name = uniqueName("onTheWire");
    auto end = uniqueName("monitorEnd");
    auto rule = [](const std::string& member) { return "type='signal',member='" + member + "'"; };
    ChildProcess monitor(*monitorProgram, {"--session", "--monitor", rule(ready), rule(name), rule(end)});
    ChildWatchdog watchdog(monitor);

    auto endsWithMember = [](const std::string& line, const std::string& member) {
        std::string suffix = "member=" + member;
        return line.size() >= suffix.size() && line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0;
    };

    // The monitor is listening once it shows a post; until then keep posting.
    std::atomic<bool> monitorListening{false};
    std::thread poster([&] {
        while (!monitorListening.load()) {
            center->post(ready);
            std::this_thread::sleep_for(20ms);
        }
    });
    bool sawReady = false;
    while (auto line = monitor.readLine()) {
        if (endsWithMember(*line, ready)) {
            sawReady = true;
            break;
        }
    }
    monitorListening = true;
    poster.join();
    ASSERT_TRUE(sawReady) << "dbus-monitor never showed a post";

    center->post(name);
    center->post(end);
    std::optional<std::string> header;
    while (auto line = monitor.readLine()) {
        if (endsWithMember(*line, name)) {
            header = line;
            break;
        }
    }
    ASSERT_TRUE(header.has_value()) << "dbus-monitor never showed the notice";
    EXPECT_EQ(header->rfind("signal ", 0), 0U) << *header;
    EXPECT_NE(header->find("path=/org/notificationdb/DistributedNotificationCenter;"), std::string::npos) << *header;
    EXPECT_NE(header->find("interface=org.notificationdb.DistributedNotificationCenter;"), std::string::npos)
        << *header;
    EXPECT_NE(header->find("destination=(null destination)"), std::string::npos)
        << "a notice is a broadcast: " << *header;

    // The monitor prints arguments on the lines below the header; the next post must follow
    // directly.
    auto next = monitor.readLine();
    ASSERT_TRUE(next.has_value());
    EXPECT_TRUE(endsWithMember(*next, end)) << "unexpected line after the notice: " << *next;
}

// A process without a session bus, or with a bus address that leads nowhere, keeps running:
// each kind of failure is logged once as an error and every post is dropped.
TEST(PlatformNotificationCenter, PostWithoutBusLogsOnceAndGoesOn) {
    TemporaryDirectory runtime;
    struct Case {
        std::string description;
        std::optional<std::string> address;
        std::string name;
    };
    std::vector<Case> cases{
        {"no bus address", std::nullopt, "ndbNoBus"},
        {"bus address without a daemon", "unix:path=" + (runtime.path() / "no-such-socket").string(), "ndbDeadBus"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        std::optional<ChildProcess> child;
        {
            ScopedEnvironment address("DBUS_SESSION_BUS_ADDRESS", c.address);
            ScopedEnvironment runtimeDirectory("XDG_RUNTIME_DIR", runtime.path().string());
            child.emplace(testing::childProgram("post"), std::vector<std::string>{c.name, "3"});
        }
        auto lines = readAllLines(*child);
        EXPECT_EQ(child->wait(), 0);
        ASSERT_EQ(lines.size(), 2U) << ::testing::PrintToString(lines);
        EXPECT_EQ(lines[0], "posted 3");
        EXPECT_EQ(lines[1].rfind("log error root: Unable to post distributed notification " + c.name + ": ", 0), 0U)
            << lines[1];
    }
}

// A name that is not a valid D-Bus member name is refused before any bus is involved.
TEST(PlatformNotificationCenter, InvalidNamesAreRefusedAndLogged) {
    ChildProcess child(testing::childProgram("post"), {"not.a member", "2"});
    auto lines = readAllLines(child);
    EXPECT_EQ(child.wait(), 0);
    ASSERT_EQ(lines.size(), 2U) << ::testing::PrintToString(lines);
    EXPECT_EQ(lines[0], "posted 2");
    EXPECT_EQ(lines[1].rfind("log error root: Unable to post distributed notification not.a member: ", 0), 0U)
        << lines[1];

    LogCapture capture;
    auto center = makeDBusNotificationCenter();
    for (const std::string& name :
         {std::string(), std::string("1starts_with_digit"), std::string("has-dash"), std::string(256, 'a')}) {
        EXPECT_EQ(center->addObserver(name, [](const std::string&) {}), nullptr) << name;
    }
    EXPECT_EQ(capture.entries().size(), 4U);
    for (const auto& entry : capture.entries()) {
        EXPECT_EQ(entry.level, LogLevel::error);
    }
}

TEST(PlatformNotificationCenter, AddObserverWithoutBusReturnsNullAndLogs) {
    TemporaryDirectory runtime;
    LogCapture capture;
    auto center = makeDBusNotificationCenter();
    {
        ScopedEnvironment address("DBUS_SESSION_BUS_ADDRESS", std::nullopt);
        ScopedEnvironment runtimeDirectory("XDG_RUNTIME_DIR", runtime.path().string());
        EXPECT_EQ(center->addObserver("ndbNoBusObserver", [](const std::string&) {}), nullptr);
    }
    auto messages = capture.messages();
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages[0].rfind("Unable to observe distributed notification ndbNoBusObserver: ", 0), 0U) << messages[0];
}

class RecordingCenter final : public DistributedNotificationCenter {
public:
    void post(const std::string& name) override { posted.push_back(name); }
    std::unique_ptr<ObserverToken> addObserver(const std::string& /*name*/, Handler /*handler*/) override {
        return nullptr;
    }
    std::vector<std::string> posted;
};

TEST(PlatformNotificationCenter, DefaultCenterCanBeReplacedAndRestored) {
    auto original = DistributedNotificationCenter::defaultCenter();
    ASSERT_NE(original, nullptr);
    EXPECT_EQ(original, DistributedNotificationCenter::defaultCenter());

    auto recording = std::make_shared<RecordingCenter>();
    DistributedNotificationCenter::setDefaultCenter(recording);
    DistributedNotificationCenter::defaultCenter()->post("databaseUpdatedNotification");
    EXPECT_EQ(recording->posted, std::vector<std::string>{"databaseUpdatedNotification"});

    DistributedNotificationCenter::setDefaultCenter(nullptr);
    auto restored = DistributedNotificationCenter::defaultCenter();
    ASSERT_NE(restored, nullptr);
    EXPECT_NE(restored, recording);
    EXPECT_EQ(dynamic_cast<RecordingCenter*>(restored.get()), nullptr);
}

}  // namespace
}  // namespace notificationdb
