#include "NotificationDatabase/ChangeNotices.hpp"

#include "NotificationDatabase/Extensions/NotificationName.hpp"
#include "NotificationDatabase/Platform/ProcessWide.hpp"

#include <chrono>
#include <cstdint>
#include <limits>
#include <map>
#include <mutex>
#include <utility>

namespace notificationdb {

namespace {

constexpr auto noticeDelay = std::chrono::seconds(1);

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

    std::uint64_t add(std::shared_ptr<DistributedNotificationCenter> center) {
        std::lock_guard lock(mutex_);
        pending_.emplace(++last_, std::move(center));
        return last_;
    }
    void remove(std::uint64_t number) {
        std::lock_guard lock(mutex_);
        pending_.erase(number);
    }
    // Posts every pending notice up to `number`, so that notices keep commit order even when
    // their jobs run out of order.
    void postThrough(std::uint64_t number) {
        // Held while posting, so that a caller returns only once its notices are out.
        std::lock_guard lock(mutex_);
        while (!pending_.empty() && pending_.begin()->first <= number) {
            const auto center = std::move(pending_.begin()->second);
            pending_.erase(pending_.begin());
            (center ? center : DistributedNotificationCenter::defaultCenter())->post(databaseUpdated());
        }
    }

private:
    std::mutex mutex_;
    std::map<std::uint64_t, std::shared_ptr<DistributedNotificationCenter>> pending_;
    std::uint64_t last_ = 0;
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
    Ledger::shared().postThrough(std::numeric_limits<std::uint64_t>::max());
}

}  // namespace notificationdb
