// The D-Bus notification center on a real session bus: posts of other processes and of this one,
// the signal as other programs on the bus see it, and what happens without a bus.

#include <NotificationDatabase/Platform/DistributedNotificationCenter.hpp>

#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <thread>

namespace notificationdb {
namespace {

using namespace testing;
using namespace std::chrono_literals;

// Generous bound after which a test gives up waiting for the bus instead of hanging.
constexpr auto watchdogTimeout = 10s;

#define REQUIRE_SESSION_BUS() \
    if (!haveSessionBus()) GTEST_SKIP() << "DBUS_SESSION_BUS_ADDRESS is not set; run the tests under dbus-run-session"

// A notice name no other test or process on the bus uses.
std::string uniqueName(const std::string& purpose) {
    static std::atomic<int> counter{0};
    return "ndbTest_" + purpose + "_" + std::to_string(::getpid()) + "_" + std::to_string(counter++);
}

// Drives the main queue, where observers' handlers run, until `done` holds or the watchdog
// gives up. Returns whether `done` holds.
bool driveMainQueueUntil(const std::function<bool()>& done) {
    const auto giveUp = std::chrono::steady_clock::now() + watchdogTimeout;
    while (!done() && std::chrono::steady_clock::now() < giveUp) MainQueue::main().runFor(10ms);
    return done();
}

// The cross-process path the store relies on: another process posts, this one hears every
// post, exactly once, on its main queue, and only for the name it observes.
TEST(PlatformNotificationCenter, ObserverHearsEveryPostOfAnotherProcess) {
    REQUIRE_SESSION_BUS();
    auto center = makeDBusNotificationCenter();
    const auto name = uniqueName("fromChild");
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

    ChildProcess child(childProgram("post"), {name, "5"});
    EXPECT_EQ(child.readAll(), std::vector<std::string>{"posted 5"}) << "the child logged a failure";
    EXPECT_EQ(child.wait(), 0);

    ASSERT_TRUE(driveMainQueueUntil([&] { return heard.size() >= 5; })) << "heard " << heard.size() << " of 5 posts";
    // A post of our own travels behind any duplicate of the child's posts on the observer's
    // connection; once it arrives, nothing of the child's is still in flight.
    center->post(name);
    ASSERT_TRUE(driveMainQueueUntil([&] { return heard.size() >= 6; }));
    EXPECT_EQ(heard, std::vector<std::string>(6, name));
    EXPECT_TRUE(onMainThread);
    EXPECT_EQ(otherHeard, 0);
}

// Posts of this process reach its own observers; dropping a token ends its deliveries at once,
// including those already waiting on the main queue, while other observers go on.
TEST(PlatformNotificationCenter, OwnPostsAreHeardUntilTheTokenIsDropped) {
    REQUIRE_SESSION_BUS();
    auto center = makeDBusNotificationCenter();
    const auto name = uniqueName("inProcess");
    int first = 0;
    int second = 0;
    auto firstToken = center->addObserver(name, [&](const std::string&) { ++first; });
    auto secondToken = center->addObserver(name, [&](const std::string&) { ++second; });
    ASSERT_NE(firstToken, nullptr);
    ASSERT_NE(secondToken, nullptr);

    center->post(name);
    ASSERT_TRUE(driveMainQueueUntil([&] { return first >= 1 && second >= 1; }));
    EXPECT_EQ(first + second, 2);

    // Let both listeners schedule their handler for the next post, then drop one token before
    // the main queue runs anything.
    const auto pendingBefore = MainQueue::main().pendingCount();
    center->post(name);
    const auto giveUp = std::chrono::steady_clock::now() + watchdogTimeout;
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
    const auto monitorProgram = findProgram("dbus-monitor");
    if (!monitorProgram) GTEST_SKIP() << "dbus-monitor is not installed";

    auto center = makeDBusNotificationCenter();
    const auto ready = uniqueName("monitorReady");
    const auto name = uniqueName("onTheWire");
    const auto end = uniqueName("monitorEnd");
    const auto rule = [](const std::string& member) { return "type='signal',member='" + member + "'"; };
    ChildProcess monitor(*monitorProgram, {"--session", "--monitor", rule(ready), rule(name), rule(end)});
    // Kills the monitor should it never show what is awaited, so that reading its output ends.
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    std::thread watchdog([&] {
        std::unique_lock lock(mutex);
        if (!finished.wait_for(lock, watchdogTimeout, [&] { return done; })) monitor.kill();
    });
    // The next line of the monitor that ends with `member=<member>`, if any.
    const auto lineOf = [&](const std::string& member) -> std::optional<std::string> {
        while (auto line = monitor.readLine()) {
            if (line->ends_with("member=" + member)) return line;
        }
        return std::nullopt;
    };

    // The monitor is listening once it shows a post; until then keep posting.
    std::atomic<bool> listening{false};
    std::thread poster([&] {
        while (!listening) {
            center->post(ready);
            std::this_thread::sleep_for(20ms);
        }
    });
    const bool sawReady = lineOf(ready).has_value();
    listening = true;
    poster.join();
    center->post(name);
    center->post(end);
    const auto header = sawReady ? lineOf(name) : std::nullopt;
    // The monitor prints arguments on the lines below the header; the next post must follow.
    const auto next = header ? monitor.readLine() : std::nullopt;
    {
        std::lock_guard lock(mutex);
        done = true;
    }
    finished.notify_all();
    watchdog.join();

    ASSERT_TRUE(sawReady) << "dbus-monitor never showed a post";
    ASSERT_TRUE(header.has_value()) << "dbus-monitor never showed the notice";
    EXPECT_TRUE(header->starts_with("signal ")) << *header;
    EXPECT_NE(header->find("path=/org/notificationdb/DistributedNotificationCenter;"), std::string::npos) << *header;
    EXPECT_NE(header->find("interface=org.notificationdb.DistributedNotificationCenter;"), std::string::npos)
        << *header;
    EXPECT_NE(header->find("destination=(null destination)"), std::string::npos) << "not a broadcast: " << *header;
    ASSERT_TRUE(next.has_value());
    EXPECT_TRUE(next->ends_with("member=" + end)) << "unexpected line after the notice: " << *next;
}

// A process without a session bus, with a bus address that leads nowhere, or posting a name that
// is no valid D-Bus member name keeps running: the failure is logged once as an error and every
// post is dropped.
TEST(PlatformNotificationCenter, PostsThatCannotBeMadeAreLoggedOnceAndDropped) {
    TemporaryDirectory runtime;
    const struct {
        std::optional<std::string> address;
        std::string name;
    } cases[] = {
        {std::nullopt, "ndbNoBus"},
        {"unix:path=" + (runtime / "no-such-socket").string(), "ndbDeadBus"},
        {std::getenv("DBUS_SESSION_BUS_ADDRESS") ? std::getenv("DBUS_SESSION_BUS_ADDRESS") : "", "not.a member"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::optional<ChildProcess> child;
        {
            ScopedEnvironment address("DBUS_SESSION_BUS_ADDRESS", c.address);
            ScopedEnvironment runtimeDirectory("XDG_RUNTIME_DIR", runtime.path().string());
            child.emplace(childProgram("post"), std::vector<std::string>{c.name, "3"});
        }
        const auto lines = child->readAll();
        EXPECT_EQ(child->wait(), 0);
        ASSERT_EQ(lines.size(), 2U) << ::testing::PrintToString(lines);
        EXPECT_EQ(lines[0], "posted 3");
        EXPECT_TRUE(lines[1].starts_with("log error root: Unable to post distributed notification " + c.name + ": "))
            << lines[1];
    }
}

// An observer of a name that is no valid member name, or without a bus, is refused and logged.
TEST(PlatformNotificationCenter, ObserversThatCannotBeAddedAreRefusedAndLogged) {
    TemporaryDirectory runtime;
    LogCapture capture;
    auto center = makeDBusNotificationCenter();
    for (const std::string& name :
         {std::string(), std::string("1starts_with_digit"), std::string("has-dash"), std::string(256, 'a')}) {
        EXPECT_EQ(center->addObserver(name, [](const std::string&) {}), nullptr) << name;
    }
    EXPECT_EQ(capture.entries().size(), 4U);
    capture.clear();
    {
        ScopedEnvironment address("DBUS_SESSION_BUS_ADDRESS", std::nullopt);
        ScopedEnvironment runtimeDirectory("XDG_RUNTIME_DIR", runtime.path().string());
        EXPECT_EQ(center->addObserver("ndbNoBusObserver", [](const std::string&) {}), nullptr);
    }
    const auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].level, LogLevel::error);
    EXPECT_TRUE(entries[0].message.starts_with("Unable to observe distributed notification ndbNoBusObserver: "))
        << entries[0].message;
}

}  // namespace
}  // namespace notificationdb
