#include "NotificationDatabase/DatabaseUpdateObserver.hpp"

#include "NotificationDatabase/Extensions/NotificationName.hpp"

#include <string>
#include <utility>

namespace notificationdb {

DatabaseUpdateObserver::DatabaseUpdateObserver(Handler handler,
                                               const std::shared_ptr<DistributedNotificationCenter>& center,
                                               MainQueue& queue) {
    if (&queue != &MainQueue::main()) {
        // The center delivers on the process's main queue; each notice is handed on to `queue`,
        // where it runs only while this observer lives.
        active_ = std::make_shared<std::atomic<bool>>(true);
        handler = [&queue, active = active_, handler = std::move(handler)] {
            queue.asyncAfter(MainQueue::Clock::duration::zero(), [active, handler] {
                if (active->load()) handler();
            });
        };
    }
    token_ = center->addObserver(databaseUpdated(), [handler = std::move(handler)](const std::string&) { handler(); });
}

DatabaseUpdateObserver::~DatabaseUpdateObserver() {
    if (active_) active_->store(false);
}

DatabaseUpdateObserver& DatabaseUpdateObserver::operator=(DatabaseUpdateObserver&& other) noexcept {
    const DatabaseUpdateObserver ended(std::move(*this));
    token_ = std::move(other.token_);
    active_ = std::move(other.active_);
    return *this;
}

}  // namespace notificationdb
