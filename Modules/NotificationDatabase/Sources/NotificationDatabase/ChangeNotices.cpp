#include "NotificationDatabase/ChangeNotices.hpp"

#include "NotificationDatabase/Extensions/NotificationName.hpp"
#include "NotificationDatabase/Platform/ProcessWide.hpp"

#include <chrono>
#include <cstdint>
#include <limits>
#include <map>
#include <mutex>
#include <set>
#include <vector>
#include <utility>

namespace notificationdb {

namespace {

constexpr auto noticeDelay = std::chrono::seconds(1);
// How long a process about to exit waits for the bus to take its notices.
constexpr auto exitFlushTimeout = std::chrono::milliseconds(2000);

// The notices scheduled and not yet posted, numbered in commit order, each with the center it
// goes to (null: the process-wide one). A notice goes out when its job comes due or when
// `postAll()` runs, whichever is first, and only then. One ledger serves the process, since
// `postAll()` answers for every store of it.
class Ledger {
public:
    static Ledger& shared() {
        // A job may come due during static destruction.
        return detail::neverDestroyed([] { return Ledger(); });
    }

    // Called by a writer right after its commit: records the notice and nothing else.
    std::uint64_t add(std::shared_ptr<DistributedNotificationCenter> center) {
        std::lock_guard lock(mutex_);
        pending_.emplace(++last_, std::move(center));
        return last_;
    }
    void remove(std::uint64_t number) {
        std::lock_guard lock(mutex_);
        pending_.erase(number);
    }
    // Posts every pending notice up to `number`, oldest first, so that notices keep commit order
    // even when their jobs run out of order; returns once they are handed to their centers.
    void postThrough(std::uint64_t number) {
        // Posts take turns, in order. `mutex_` is never held across a post: writers record their
        // notices meanwhile, however long a center takes, and a center that writes to a store
        // (which records a notice) does not wait for itself.
        std::lock_guard posting(postingMutex_);
        for (;;) {
            std::shared_ptr<DistributedNotificationCenter> center;
            {
                std::lock_guard lock(mutex_);
                if (pending_.empty() || pending_.begin()->first > number) return;
                center = std::move(pending_.begin()->second);
                pending_.erase(pending_.begin());
            }
            if (!center) center = DistributedNotificationCenter::defaultCenter();
            center->post(databaseUpdated());
            std::lock_guard lock(mutex_);
            used_.insert(center);
        }
    }
    // The centers notices went to that still exist, to be flushed before the process exits.
    std::vector<std::shared_ptr<DistributedNotificationCenter>> usedCenters() {
        std::lock_guard lock(mutex_);
        std::vector<std::shared_ptr<DistributedNotificationCenter>> centers;
        std::erase_if(used_, [&centers](const auto& center) {
            if (auto alive = center.lock()) return centers.push_back(std::move(alive)), false;
            return true;
        });
        return centers;
    }

private:
    std::mutex mutex_;
    std::map<std::uint64_t, std::shared_ptr<DistributedNotificationCenter>> pending_;
    std::uint64_t last_ = 0;
    std::set<std::weak_ptr<DistributedNotificationCenter>, std::owner_less<>> used_;
    // Recursive: a center's post may itself post the pending notices.
    std::recursive_mutex postingMutex_;
};

}  // namespace

void ChangeNotices::schedule(const MainQueue::Scheduler& mainQueue,
                             std::shared_ptr<DistributedNotificationCenter> center) {
    auto& ledger = Ledger::shared();
    const std::uint64_t notice = ledger.add(std::move(center));
    MainQueue::Job job = [notice] { Ledger::shared().postThrough(notice); };
    try {
        if (mainQueue) {
            mainQueue(MainQueue::Clock::now() + noticeDelay, std::move(job));
        } else {
            MainQueue::main().asyncAfter(noticeDelay, std::move(job));
        }
    } catch (...) {
        ledger.remove(notice);
        throw;
    }
}

void ChangeNotices::postAll() {
    auto& ledger = Ledger::shared();
    ledger.postThrough(std::numeric_limits<std::uint64_t>::max());
    for (const auto& center : ledger.usedCenters()) center->flush(exitFlushTimeout);
}

}  // namespace notificationdb
