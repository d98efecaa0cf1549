// The main queue: delayed jobs in deadline order, the ways to drive it and to stop it, jobs from
// other threads, an installed scheduler, and jobs that throw.

#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <thread>

namespace notificationdb {
namespace {

using namespace std::chrono_literals;
using Clock = MainQueue::Clock;

// Jobs run in deadline order, not before their deadline, whatever the order in which they were
// scheduled; jobs with equal deadlines keep their scheduling order, and a negative delay means
// "as soon as possible", after what is already due.
TEST(PlatformMainQueue, JobsRunInDeadlineOrderThenInSchedulingOrder) {
    MainQueue queue;
    std::vector<std::string> order;
    bool early = false;
    const auto schedule = [&](const std::string& name, Clock::duration delay) {
        const auto deadline = Clock::now() + delay;
        queue.asyncAfter(delay, [&, name, deadline] {
            order.push_back(name);
            early = early || Clock::now() < deadline;
        });
    };
    schedule("late", 60ms);
    for (int i = 0; i < 100; ++i) schedule("now" + std::to_string(i), 0ms);
    schedule("middle", 30ms);
    schedule("early", 10ms);
    schedule("asap", -5s);
    EXPECT_EQ(queue.pendingCount(), 104U);

    EXPECT_EQ(queue.runUntilIdle(), 104U);
    std::vector<std::string> expected;
    for (int i = 0; i < 100; ++i) expected.push_back("now" + std::to_string(i));
    expected.insert(expected.end(), {"asap", "early", "middle", "late"});
    EXPECT_EQ(order, expected);
    EXPECT_FALSE(early) << "a job ran before its deadline";
    EXPECT_EQ(queue.pendingCount(), 0U);
}

// Scheduling is safe from any thread while the queue is driven; each thread's jobs keep their
// order, and every job runs exactly once on the driving thread. The process has one main queue,
// whichever thread asks for it.
TEST(PlatformMainQueue, JobsScheduledFromSeveralThreadsWhileRunning) {
    MainQueue queue;
    constexpr int threadCount = 4;
    constexpr int jobsPerThread = 250;
    std::vector<std::vector<int>> seen(threadCount);
    int ran = 0;
    const auto drivingThread = std::this_thread::get_id();
    bool wrongThread = false;

    std::vector<std::thread> producers;
    for (int t = 0; t < threadCount; ++t) {
        producers.emplace_back([&, t] {
            for (int i = 0; i < jobsPerThread; ++i) {
                queue.asyncAfter(0ms, [&, t, i] {
                    wrongThread = wrongThread || std::this_thread::get_id() != drivingThread;
                    seen[static_cast<std::size_t>(t)].push_back(i);
                    if (++ran == threadCount * jobsPerThread) queue.stop();
                });
            }
        });
    }
    queue.run();
    for (auto& producer : producers) producer.join();

    EXPECT_FALSE(wrongThread);
    std::vector<int> inOrder(jobsPerThread);
    for (int i = 0; i < jobsPerThread; ++i) inOrder[static_cast<std::size_t>(i)] = i;
    EXPECT_EQ(seen, std::vector<std::vector<int>>(threadCount, inOrder));
    EXPECT_EQ(queue.pendingCount(), 0U);

    MainQueue* fromOtherThread = nullptr;
    std::thread([&] { fromOtherThread = &MainQueue::main(); }).join();
    EXPECT_EQ(&MainQueue::main(), fromOtherThread);
}

// runUntilIdle waits for delayed jobs, including those that jobs schedule, and returns once
// nothing is left. runFor runs what falls due in its window and leaves later jobs pending; a job
// that keeps rescheduling itself cannot hold it past its window.
TEST(PlatformMainQueue, RunUntilIdleAndRunForRunWhatFallsDue) {
    MainQueue queue;
    EXPECT_EQ(queue.runUntilIdle(), 0U);
    std::vector<std::string> ran;
    queue.asyncAfter(5ms, [&] {
        ran.emplace_back("first");
        queue.asyncAfter(20ms, [&] {
            ran.emplace_back("second");
            queue.asyncAfter(0ms, [&] { ran.emplace_back("third"); });
        });
    });
    EXPECT_EQ(queue.runUntilIdle(), 3U);
    EXPECT_EQ(ran, (std::vector<std::string>{"first", "second", "third"}));

    queue.asyncAfter(0ms, [&] { ran.emplace_back("now"); });
    queue.asyncAfter(10ms, [&] { ran.emplace_back("soon"); });
    queue.asyncAfter(1h, [&] { ran.emplace_back("much later"); });
    EXPECT_EQ(queue.runFor(100ms), 2U);
    EXPECT_EQ(ran.back(), "soon");
    EXPECT_EQ(queue.pendingCount(), 1U);

    std::function<void()> spin = [&] { queue.asyncAfter(0ms, spin); };
    queue.asyncAfter(0ms, spin);
    EXPECT_GT(queue.runFor(20ms), 0U);
    EXPECT_EQ(queue.pendingCount(), 2U) << "the hour-long job and the next spin remain";
}

// stop() from another thread ends run(); from inside a job it ends the drive after that job;
// made while no drive runs, it ends the next one at once and is then used up.
TEST(PlatformMainQueue, StopEndsTheCurrentOrNextDrive) {
    MainQueue queue;
    std::atomic<int> ticks{0};
    std::function<void()> tick = [&] {
        ++ticks;
        queue.asyncAfter(1ms, tick);
    };
    queue.asyncAfter(0ms, tick);
    std::thread stopper([&] {
        while (ticks < 3) std::this_thread::sleep_for(1ms);
        queue.stop();
    });
    queue.run();
    stopper.join();

    MainQueue inside;
    std::vector<int> ran;
    inside.asyncAfter(0ms, [&] {
        ran.push_back(1);
        inside.stop();
    });
    inside.asyncAfter(0ms, [&] { ran.push_back(2); });
    EXPECT_EQ(inside.runUntilIdle(), 1U);
    EXPECT_EQ(ran, std::vector<int>{1});

    inside.stop();
    inside.run();  // returns at once: the request was waiting for it
    EXPECT_EQ(inside.pendingCount(), 1U);
    EXPECT_EQ(inside.runUntilIdle(), 1U) << "a stop request ends one drive only";
    EXPECT_EQ(ran, (std::vector<int>{1, 2}));
}

// A host with its own event loop receives every later job with its deadline, from any thread;
// jobs already pending stay, and removing the scheduler brings jobs back to the queue.
TEST(PlatformMainQueue, InstalledSchedulerReceivesLaterJobs) {
    MainQueue queue;
    int ran = 0;
    queue.asyncAfter(0ms, [&] { ran += 1; });

    std::mutex mutex;
    std::vector<std::pair<Clock::time_point, MainQueue::Job>> received;
    queue.setScheduler([&](Clock::time_point deadline, MainQueue::Job job) {
        std::lock_guard lock(mutex);
        received.emplace_back(deadline, std::move(job));
    });
    const auto before = Clock::now();
    queue.asyncAfter(1s, [&] { ran += 10; });
    std::thread([&] { queue.asyncAfter(0ms, [&] { ran += 100; }); }).join();
    ASSERT_EQ(received.size(), 2U);
    EXPECT_GE(received[0].first, before + 1s);
    EXPECT_EQ(queue.pendingCount(), 1U);
    for (auto& [deadline, job] : received) job();
    EXPECT_EQ(ran, 110);

    queue.setScheduler({});
    queue.asyncAfter(0ms, [&] { ran += 1000; });
    EXPECT_EQ(queue.runUntilIdle(), 2U);
    EXPECT_EQ(ran, 1111);
    EXPECT_EQ(received.size(), 2U);
}

// A job that throws is logged and dropped; the queue goes on with the next one.
TEST(PlatformMainQueue, ThrowingJobDoesNotStopTheQueue) {
    testing::LogCapture capture;
    MainQueue queue;
    bool after = false;
    queue.asyncAfter(0ms, [] { throw std::runtime_error("job failed"); });
    queue.asyncAfter(0ms, [&] { after = true; });
    EXPECT_EQ(queue.runUntilIdle(), 2U);
    EXPECT_TRUE(after);
    const auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].level, LogLevel::error);
    EXPECT_NE(entries[0].message.find("job failed"), std::string::npos);
}

}  // namespace
}  // namespace notificationdb
