#include "NotificationDatabase/GLib/MainContextScheduler.hpp"

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <utility>

namespace notificationdb {

// The jobs of one scheduler in deadline order. Each job also gets a GSource that wakes the
// context at its deadline; whichever source fires runs every job that is due, in order, so
// that a loop that wakes late (several sources ready at once, which GLib dispatches in the
// order they were attached) still runs the jobs in deadline order.
struct detail::MainContextQueue {
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
            MainQueue::runJob(job);  // the loop calls this from C: no exception may cross it
        }
    }
};

namespace {

// A source with no prepare or check: GLib dispatches it once its ready time has come.
struct JobSource {
    GSource source;
    std::shared_ptr<detail::MainContextQueue>* queue;
};

gboolean dispatchJobSource(GSource* source, GSourceFunc /*callback*/, gpointer /*data*/) {
    (*reinterpret_cast<JobSource*>(source)->queue)->runDueJobs();
    return G_SOURCE_REMOVE;
}

void finalizeJobSource(GSource* source) {
    delete reinterpret_cast<JobSource*>(source)->queue;
}

GSourceFuncs jobSourceFuncs = {nullptr, nullptr, dispatchJobSource, finalizeJobSource, nullptr, nullptr};

// MainQueue::Clock is steady_clock, which on Linux reads the clock of g_get_monotonic_time();
// rounding up keeps the source from firing before the job is due.
gint64 readyTime(MainQueue::Clock::time_point deadline) {
    if (deadline == MainQueue::Clock::time_point::max()) return -1;
    return std::chrono::ceil<std::chrono::microseconds>(deadline.time_since_epoch()).count();
}

}  // namespace

MainContextScheduler::MainContextScheduler(GMainContext* context)
    : context_(g_main_context_ref(context != nullptr ? context : g_main_context_default()), g_main_context_unref),
      queue_(std::make_shared<detail::MainContextQueue>()) {}

void MainContextScheduler::install(GMainContext* context) {
    MainQueue::main().setScheduler(MainContextScheduler(context));
}

void MainContextScheduler::operator()(MainQueue::Clock::time_point deadline, MainQueue::Job job) const {
    {
        std::lock_guard lock(queue_->mutex);
        queue_->jobs.emplace(detail::MainContextQueue::Key{deadline, queue_->nextSequence++}, std::move(job));
    }
    GSource* source = g_source_new(&jobSourceFuncs, sizeof(JobSource));
    reinterpret_cast<JobSource*>(source)->queue = new std::shared_ptr<detail::MainContextQueue>(queue_);
    g_source_set_ready_time(source, readyTime(deadline));
    g_source_set_name(source, "NotificationDatabase main queue job");
    // g_source_attach is safe from any thread and wakes the context's loop.
    g_source_attach(source, context_.get());
    g_source_unref(source);
}

GMainContext* MainContextScheduler::context() const noexcept {
    return context_.get();
}

}  // namespace notificationdb
