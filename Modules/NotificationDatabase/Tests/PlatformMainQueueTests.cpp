#include <NotificationDatabase/Platform/MainQueue.hpp>

#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace notificationdb {
namespace {

using namespace std::chrono_literals;
using Clock = MainQueue::Clock;

// Jobs wait for their deadline and then run in deadline order, whatever the order in which they
// were scheduled.
TEST(PlatformMainQueue, DelayedJobsRunInDeadlineOrderNotBeforeTheirDeadline) {
    MainQueue queue;
    std::vector<std::string> order;
    std::map<std::string, std::pair<Clock::time_point, Clock::time_point>> times;

    auto schedule = [&](const std::string& name, Clock::duration delay) {
        auto scheduledAt = Clock::now();
        queue.asyncAfter(delay, [&, name, scheduledAt, delay] {
            order.push_back(name);
            times[name] = {scheduledAt + delay, Clock::now()};
        });
    };
    schedule("late", 60ms);
    schedule("soon", 0ms);
    schedule("middle", 30ms);
    schedule("early", 10ms);
    EXPECT_EQ(queue.pendingCount(), 4U);

    EXPECT_EQ(queue.runUntilIdle(), 4U);
    EXPECT_EQ(order, (std::vector<std::string>{"soon", "early", "middle", "late"}));
    for (const auto& [name, deadlineAndRun] : times) {
        EXPECT_GE(deadlineAndRun.second, deadlineAndRun.first) << name << " ran before its deadline";
    }
    EXPECT_EQ(queue.pendingCount(), 0U);
}

// Jobs scheduled for "now" keep their scheduling order, also when many share a deadline.
TEST(PlatformMainQueue, JobsWithEqualDeadlinesRunInSchedulingOrder) {
    MainQueue queue;
    std::vector<int> order;
    for (int i = 0; i < 500; ++i) {
        queue.asyncAfter(0ms, [&order, i] { order.push_back(i); });
    }
    // Negative delays mean "as soon as possible" too, after what is already due.
    queue.asyncAfter(-5s, [&order] { order.push_back(500); });

    EXPECT_EQ(queue.runUntilIdle(), 501U);
    ASSERT_EQ(order.size(), 501U);
    for (int i = 0; i < 501; ++i) {
        EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    }
}

// Scheduling is safe from any thread while the queue is driven; each thread's jobs keep their
// order, and every job runs exactly once on the driving thread.
TEST(PlatformMainQueue, JobsScheduledFromSeveralThreadsWhileRunning) {
    MainQueue queue;
    constexpr int threadCount = 4;
    constexpr int jobsPerThread = 250;
    std::vector<std::vector<int>> seen(threadCount);
    std::atomic<int> ran{0};
    const auto drivingThread = std::this_thread::get_id();
    std::atomic<bool> wrongThread{false};

    std::vector<std::thread> producers;
    producers.reserve(threadCount);
    for (int t = 0; t < threadCount; ++t) {
        producers.emplace_back([&, t] {
            for (int i = 0; i < jobsPerThread; ++i) {
                queue.asyncAfter(0ms, [&, t, i] {
                    if (std::this_thread::get_id() != drivingThread) {
                        wrongThread = true;
                    }
                    seen[static_cast<std::size_t>(t)].push_back(i);
                    if (++ran == threadCount * jobsPerThread) {
                        queue.stop();
                    }
                });
            }
        });
    }
    queue.run();
    for (auto& producer : producers) {
        producer.join();
    }

    EXPECT_FALSE(wrongThread.load());
    EXPECT_EQ(ran.load(), threadCount * jobsPerThread);
    for (int t = 0; t < threadCount; ++t) {
        const auto& jobs = seen[static_cast<std::size_t>(t)];
        ASSERT_EQ(jobs.size(), static_cast<std::size_t>(jobsPerThread));
        for (int i = 0; i < jobsPerThread; ++i) {
            EXPECT_EQ(jobs[static_cast<std::size_t>(i)], i);
        }
    }
    EXPECT_EQ(queue.pendingCount(), 0U);
}

// runUntilIdle waits for delayed jobs, including those that jobs schedule, and returns once
// nothing is left; a queue with nothing pending returns at once.
TEST(PlatformMainQueue, RunUntilIdleFollowsChainsOfDelayedJobs) {
    MainQueue queue;
    EXPECT_EQ(queue.runUntilIdle(), 0U);

    std::vector<int> steps;
    Clock::time_point secondDue;
    Clock::time_point secondRan;
    queue.asyncAfter(5ms, [&] {
        steps.push_back(1);
        secondDue = Clock::now() + 20ms;
        queue.asyncAfter(20ms, [&] {
            steps.push_back(2);
            secondRan = Clock::now();
            queue.asyncAfter(0ms, [&] { steps.push_back(3); });
        });
    });
    EXPECT_EQ(queue.runUntilIdle(), 3U);
    EXPECT_EQ(steps, (std::vector<int>{1, 2, 3}));
    EXPECT_GE(secondRan, secondDue);
    EXPECT_EQ(queue.pendingCount(), 0U);
}

// runFor runs what falls due in its window and leaves later jobs pending for the next drive.
TEST(PlatformMainQueue, RunForRunsOnlyWhatFallsDueInItsWindow) {
    MainQueue queue;
    std::vector<std::string> ran;
    queue.asyncAfter(0ms, [&] { ran.emplace_back("now"); });
    queue.asyncAfter(10ms, [&] { ran.emplace_back("soon"); });
    queue.asyncAfter(1h, [&] { ran.emplace_back("much later"); });

    auto started = Clock::now();
    EXPECT_EQ(queue.runFor(100ms), 2U);
    EXPECT_GE(Clock::now() - started, 100ms) << "runFor keeps driving for its whole window";
    EXPECT_EQ(ran, (std::vector<std::string>{"now", "soon"}));
    EXPECT_EQ(queue.pendingCount(), 1U);

    // A job that keeps rescheduling itself cannot hold runFor past its window.
    std::atomic<int> spins{0};
    std::function<void()> spin = [&] {
        ++spins;
        queue.asyncAfter(0ms, spin);
    };
    queue.asyncAfter(0ms, spin);
    queue.runFor(20ms);
    EXPECT_GT(spins.load(), 0);
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
        while (ticks.load() < 3) {
            std::this_thread::sleep_for(1ms);
        }
        queue.stop();
    });
    queue.run();
    stopper.join();
    EXPECT_GE(ticks.load(), 3);

    MainQueue inside;
    std::vector<int> ran;
    inside.asyncAfter(0ms, [&] {
        ran.push_back(1);
        inside.stop();
    });
    inside.asyncAfter(0ms, [&] { ran.push_back(2); });
    EXPECT_EQ(inside.runUntilIdle(), 1U);
    EXPECT_EQ(ran, std::vector<int>{1});
    EXPECT_EQ(inside.pendingCount(), 1U);

    inside.stop();
    inside.run();  // returns at once: the request was waiting for it
    EXPECT_EQ(inside.pendingCount(), 1U);
    EXPECT_EQ(inside.runUntilIdle(), 1U) << "a stop request ends one drive only";
    EXPECT_EQ(ran, (std::vector<int>{1, 2}));
}

// A host with its own event loop receives every later job with its deadline; jobs already
// pending stay, and removing the scheduler brings jobs back to the queue.
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
    auto before = Clock::now();
    queue.asyncAfter(1s, [&] { ran += 10; });
    std::thread([&] { queue.asyncAfter(0ms, [&] { ran += 100; }); }).join();

    ASSERT_EQ(received.size(), 2U);
    EXPECT_GE(received[0].first, before + 1s);
    EXPECT_EQ(queue.pendingCount(), 1U);
    for (auto& [deadline, job] : received) {
        job();
    }
    EXPECT_EQ(ran, 110);

    queue.setScheduler({});
    queue.asyncAfter(0ms, [&] { ran += 1000; });
    EXPECT_EQ(queue.pendingCount(), 2U);
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
    auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].level, LogLevel::error);
    EXPECT_NE(entries[0].message.find("job failed"), std::string::npos);
}

TEST(PlatformMainQueue, MainIsOneQueuePerProcess) {
    MainQueue* fromOtherThread = nullptr;
    std::thread([&] { fromOtherThread = &MainQueue::main(); }).join();
    EXPECT_EQ(&MainQueue::main(), fromOtherThread);
}

}  // namespace
}  // namespace notificationdb
