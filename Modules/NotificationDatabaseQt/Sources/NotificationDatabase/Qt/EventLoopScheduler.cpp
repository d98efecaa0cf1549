#include "NotificationDatabase/Qt/EventLoopScheduler.hpp"

#include <QCoreApplication>
#include <QMetaObject>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <utility>

namespace notificationdb {

// The jobs of one scheduler in deadline order. Each job also starts a single-shot timer for its
// deadline; whichever timer fires runs every job that is due, in order, so that jobs whose timers
// fire together (or were started out of order from different threads) still run by deadline.
struct detail::EventLoopQueue {
    using Key = std::pair<MainQueue::Clock::time_point, std::uint64_t>;

    std::mutex mutex;
    std::map<Key, MainQueue::Job> jobs;
    std::uint64_t nextSequence = 0;

    void runDueJobs() {
        for (;;) {
            MainQueue::Job job;
            {
                std::lock_guard lock(mutex);
                if (jobs.empty() || jobs.begin()->first.first > MainQueue::Clock::now()) return;
                job = std::move(jobs.extract(jobs.begin()).mapped());
            }
            MainQueue::runJob(job);  // no exception may cross Qt's event loop
        }
    }
};

namespace {

using namespace std::chrono_literals;

// On the context's thread: waits for `deadline` with a timer, then runs what is due. Qt's timers
// count whole milliseconds as an int, so a long wait is taken in steps, and a timer that fires a
// moment early waits again.
void runWhenDue(const std::shared_ptr<detail::EventLoopQueue>& queue, QObject* context,
                MainQueue::Clock::time_point deadline) {
    if (deadline == MainQueue::Clock::time_point::max()) return;  // never due
    const auto delay = std::clamp(std::chrono::ceil<std::chrono::milliseconds>(deadline - MainQueue::Clock::now()),
                                  std::chrono::milliseconds(0), std::chrono::milliseconds(std::chrono::hours(24)));
    QTimer::singleShot(delay, Qt::PreciseTimer, context, [queue, context, deadline] {
        if (MainQueue::Clock::now() < deadline) return runWhenDue(queue, context, deadline);
        queue->runDueJobs();
    });
}

}  // namespace

EventLoopScheduler::EventLoopScheduler(QObject* context)
    : context_(context != nullptr ? context : QCoreApplication::instance()),
      queue_(std::make_shared<detail::EventLoopQueue>()) {}

void EventLoopScheduler::install(QObject* context) {
    MainQueue::main().setScheduler(EventLoopScheduler(context));
}

void EventLoopScheduler::operator()(MainQueue::Clock::time_point deadline, MainQueue::Job job) const {
    {
        std::lock_guard lock(queue_->mutex);
        queue_->jobs.emplace(detail::EventLoopQueue::Key{deadline, queue_->nextSequence++}, std::move(job));
    }
    // A queued call is safe from any thread; the timer is then made on the context's own thread.
    // Without the context (destroyed, or no application object) the job stays pending for good.
    QObject* context = context_.data();
    if (context == nullptr) return;
    QMetaObject::invokeMethod(
        context, [queue = queue_, context, deadline] { runWhenDue(queue, context, deadline); }, Qt::QueuedConnection);
}

}  // namespace notificationdb
