#pragma once

#include <NotificationDatabase/Export.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include <glib.h>

#include <memory>

namespace notificationdb {

namespace detail {
struct MainContextQueue;
}

// Runs the jobs of a `MainQueue` in a GLib main context, so that a GTK or other GLib host needs
// no loop of its own for the library: install it with
//
//   MainContextScheduler::install();                 // the default main context
//   MainContextScheduler::install(context);          // or a context of the host's choosing
//
// and run the context as usual (`g_main_loop_run`, `g_application_run`, `gtk_main`).
//
// The scheduler contract (`MainQueue::Scheduler`), for this adapter and for any other host loop:
// - What arrives: every job that `MainQueue::main().asyncAfter()` receives once the scheduler is
//   installed, with its deadline on `MainQueue::Clock` (std::chrono::steady_clock, the clock of
//   g_get_monotonic_time()). Those are the store's change notices (one job per committed change,
//   due 1.0 s after the commit) and the notices heard by `DistributedNotificationCenter::
//   addObserver` (due at once; the observer's handler runs inside the job).
// - Who calls it: the thread that committed a write of the store, right after the commit (any
//   thread of the host that writes), and the listening thread of each `addObserver`
//   registration. The scheduler must be safe to call from any thread and must not block for
//   long; it must not run the job itself, only hand it to the loop's thread.
// - What it must do: run each job once, on the thread that runs the loop, not before its
//   deadline. This adapter also runs them in deadline order (equal deadlines in the order they
//   came), even when the loop wakes late; a job that throws is logged through
//   `Logger::module()` and the loop goes on.
// - When to install it: before the first write of any store and before `addObserver`; jobs
//   scheduled earlier stay on the built-in queue, where only `run()`, `runFor()` or
//   `runUntilIdle()` would run them. A host that ends before a notice falls due can send the
//   pending notices at once (see NotificationDatabase.hpp).
//
// A Qt host uses the Qt adapter's `EventLoopScheduler` (`NotificationDatabase/Qt/EventLoopScheduler.hpp`),
// which keeps the same contract.
class NOTIFICATIONDB_API MainContextScheduler {
public:
    // A scheduler for `context` (nullptr: the default main context), which it keeps a
    // reference to for as long as it or a job scheduled through it lives.
    explicit MainContextScheduler(GMainContext* context = nullptr);

    // Makes this scheduler the one of `MainQueue::main()`.
    static void install(GMainContext* context = nullptr);

    // Attaches `job` to the context, due at `deadline`. Safe from any thread.
    void operator()(MainQueue::Clock::time_point deadline, MainQueue::Job job) const;

    // The context the jobs run in.
    GMainContext* context() const noexcept;

private:
    std::shared_ptr<GMainContext> context_;
    std::shared_ptr<detail::MainContextQueue> queue_;
};

}  // namespace notificationdb
