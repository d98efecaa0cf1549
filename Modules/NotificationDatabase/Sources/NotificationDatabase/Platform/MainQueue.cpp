#include "NotificationDatabase/Platform/MainQueue.hpp"

#include "NotificationDatabase/Platform/LogSanitizer.hpp"
#include "NotificationDatabase/Platform/Logger.hpp"
#include "NotificationDatabase/Platform/ProcessWide.hpp"

#include <algorithm>
#include <exception>
#include <string>

namespace notificationdb {

namespace {

MainQueue::Clock::time_point deadlineAfter(MainQueue::Clock::duration delay) {
    auto now = MainQueue::Clock::now();
    if (delay <= MainQueue::Clock::duration::zero()) return now;
    // A delay too long to represent means "never", not an overflow into the past.
    if (delay > MainQueue::Clock::time_point::max() - now) return MainQueue::Clock::time_point::max();
    return now + delay;
}

}  // namespace

void MainQueue::runJob(const Job& job) noexcept {
    try {
        if (job) job();
    } catch (const std::exception& error) {
        Logger::module()->log(LogLevel::error, "Main queue job failed: " + LogSanitizer::sanitizeError(error));
    } catch (...) {
        Logger::module()->log(LogLevel::error, "Main queue job failed: unknown exception");
    }
}

MainQueue& MainQueue::main() {
    // Threads that outlive `main()` may still schedule work during exit.
    return detail::neverDestroyed([] { return MainQueue(); });
}

void MainQueue::asyncAfter(Clock::duration delay, Job job) {
    auto deadline = deadlineAfter(delay);
    Scheduler scheduler;
    {
        std::lock_guard lock(mutex_);
        if (!scheduler_) {
            jobs_.emplace(Key{deadline, nextSequence_++}, std::move(job));
            wakeUp_.notify_all();
            return;
        }
        scheduler = scheduler_;
    }
    // Called without the lock: the host's scheduler may well call back into this queue.
    scheduler(deadline, std::move(job));
}

void MainQueue::run() {
    drive(Clock::time_point::max(), false);
}

void MainQueue::stop() {
    std::lock_guard lock(mutex_);
    stopRequested_ = true;
    wakeUp_.notify_all();
}

std::size_t MainQueue::runUntilIdle() {
    return drive(Clock::time_point::max(), true);
}

std::size_t MainQueue::runFor(Clock::duration duration) {
    return drive(deadlineAfter(duration), false);
}

std::size_t MainQueue::pendingCount() const {
    std::lock_guard lock(mutex_);
    return jobs_.size();
}

void MainQueue::setScheduler(Scheduler scheduler) {
    std::lock_guard lock(mutex_);
    scheduler_ = std::move(scheduler);
}

std::size_t MainQueue::drive(Clock::time_point until, bool untilIdle) {
    std::size_t ran = 0;
    std::unique_lock lock(mutex_);
    for (;;) {
        // A stop request is consumed by the drive that honours it, so a request made while no
        // drive is running ends the next one at once instead of being lost.
        if (stopRequested_) {
            stopRequested_ = false;
            break;
        }
        auto now = Clock::now();
        if (!jobs_.empty()) {
            auto deadline = jobs_.begin()->first.first;
            // Jobs due before `until` run even when the drive is late; jobs scheduled later than
            // `until` wait for the next drive, so a job that keeps rescheduling itself cannot
            // hold `runFor` forever.
            if (deadline <= now && deadline <= until) {
                auto node = jobs_.extract(jobs_.begin());
                lock.unlock();
                runJob(node.mapped());
                // The job (and what it captured) is destroyed before the lock is taken again.
                node = {};
                ++ran;
                lock.lock();
                continue;
            }
        }
        if (untilIdle && jobs_.empty()) break;
        if (now >= until) break;

        auto wakeAt = until;
        if (!jobs_.empty()) wakeAt = std::min(wakeAt, jobs_.begin()->first.first);
        if (wakeAt == Clock::time_point::max()) {
            wakeUp_.wait(lock);
        } else {
            wakeUp_.wait_until(lock, wakeAt);
        }
    }
    return ran;
}

}  // namespace notificationdb
