#pragma once

#include <NotificationDatabase/Export.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include <QObject>
#include <QPointer>

#include <memory>

namespace notificationdb {

namespace detail {
struct EventLoopQueue;
}

// Runs the jobs of a `MainQueue` in a Qt event loop, so that a Qt host needs no loop of its own
// for the library: install it once the application object exists and before the first write,
//
//   QCoreApplication app(argc, argv);                // or QGuiApplication, QApplication
//   EventLoopScheduler::install();                   // jobs run on the application's thread
//
// and run the loop as usual (`app.exec()`). The jobs are the store's change notices (each due
// 1.0 s after its commit) and the notices that observers hear (due at once; see
// `DatabaseUpdateNotifier`). They run on the thread of the context object, one at a time, not
// before their deadline and in deadline order (equal deadlines in the order they came); a job
// that throws is logged through `Logger::module()` and the loop goes on. Scheduling is safe from
// any thread: the store's writing threads and the observers' listening threads hand jobs over
// with a queued call. Jobs scheduled before the scheduler is installed stay on the built-in
// queue, and jobs still pending when the context object is destroyed are dropped.
class NOTIFICATIONDB_API EventLoopScheduler {
public:
    // A scheduler for the thread and event loop of `context` (null: the application object,
    // which must exist by then).
    explicit EventLoopScheduler(QObject* context = nullptr);

    // Makes a scheduler for `context` the one of `MainQueue::main()`.
    static void install(QObject* context = nullptr);

    // Hands `job`, due at `deadline`, to the context's thread. Safe from any thread.
    void operator()(MainQueue::Clock::time_point deadline, MainQueue::Job job) const;

    // The object on whose thread the jobs run; null once it has been destroyed.
    QObject* context() const noexcept { return context_.data(); }

private:
    QPointer<QObject> context_;
    std::shared_ptr<detail::EventLoopQueue> queue_;
};

}  // namespace notificationdb
