#pragma once

#include <NotificationDatabase/Export.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <utility>

namespace notificationdb {

// A serial queue of delayed jobs, run on whichever thread drives it (the host's main thread).
// Jobs run not before their deadline; jobs with equal deadlines run in scheduling order.
// Scheduling is safe from any thread. A host with its own event loop installs a scheduler
// instead of driving the queue.
class NOTIFICATIONDB_API MainQueue {
public:
    using Clock = std::chrono::steady_clock;  // deadlines are measured on it
    using Job = std::function<void()>;        // a job; it may throw (see `runJob`)
    // Receives every job scheduled from then on, with its deadline.
    using Scheduler = std::function<void(Clock::time_point deadline, Job job)>;

    // The process's main queue, created on first use.
    static MainQueue& main();

    MainQueue() = default;
    ~MainQueue() = default;
    MainQueue(const MainQueue&) = delete;
    MainQueue& operator=(const MainQueue&) = delete;

    // Schedules `job` to run `delay` from now.
    void asyncAfter(Clock::duration delay, Job job);

    // Runs jobs as they fall due until `stop()` is called (from a job or another thread).
    void run();
    // Makes a running `run()`, `runFor()` or `runUntilIdle()` return after its current job. A
    // request made while none is running ends the next one at once; each request ends one drive.
    void stop();
    // Runs jobs, waiting for their deadlines, until none is pending; returns how many ran.
    std::size_t runUntilIdle();
    // Runs jobs as they fall due for `duration`, then returns how many ran. Jobs due later than
    // the end of that window stay pending.
    std::size_t runFor(Clock::duration duration);

    // Jobs scheduled and not yet run.
    std::size_t pendingCount() const;

    // Routes later jobs to `scheduler` (jobs already pending stay here); an empty function
    // restores the built-in queue.
    void setScheduler(Scheduler scheduler);

    // Runs `job` as the queue runs its own: an exception it throws is logged ("Main queue job
    // failed: ...") and goes no further, so that a scheduler's event loop survives it.
    static void runJob(const Job& job) noexcept;

private:
    using Key = std::pair<Clock::time_point, std::uint64_t>;
    std::size_t drive(Clock::time_point until, bool untilIdle);

    mutable std::mutex mutex_;
    std::condition_variable wakeUp_;
    std::map<Key, Job> jobs_;
    std::uint64_t nextSequence_ = 0;
    bool stopRequested_ = false;
    Scheduler scheduler_;
};

}  // namespace notificationdb
