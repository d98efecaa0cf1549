#pragma once

#include <NotificationDatabase/Export.hpp>
#include <NotificationDatabase/Platform/DistributedNotificationCenter.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include <atomic>
#include <functional>
#include <memory>

namespace notificationdb {

// Hears `databaseUpdated()` from every process of the user, this one included, and runs a
// handler on the main queue for each notice, for as long as the object lives:
//
//   const DatabaseUpdateObserver updates([&] { show(store->fetchNotifications(std::nullopt)); });
//
// The notice carries no data: the handler asks its store for what it shows. Notices posted
// before the observer was made are not heard; none is handled after it is destroyed, not even
// one already waiting on the queue. The handler runs only where the queue runs its jobs, so a
// host drives `MainQueue::main()` or installs a scheduler for its own loop (the GLib and Qt
// adapters have one).
class NOTIFICATIONDB_API DatabaseUpdateObserver {
public:
    using Handler = std::function<void()>;  // runs once per notice heard

    // Starts observing through `center` (not null); `handler` runs on `queue`, which must outlive
    // the observer. Without a session bus nothing throws: the failure is logged once and
    // `isObserving()` is false.
    [[nodiscard]] explicit DatabaseUpdateObserver(
        Handler handler,
        const std::shared_ptr<DistributedNotificationCenter>& center = DistributedNotificationCenter::defaultCenter(),
        MainQueue& queue = MainQueue::main());
    // Ends the observation; a handler running on another thread at that moment may still finish.
    ~DatabaseUpdateObserver();
    // A moved observer goes on observing; the one it was moved from observes nothing. Assigning
    // ends the observation the target had.
    DatabaseUpdateObserver(DatabaseUpdateObserver&&) noexcept = default;
    // Ends this observer's own observation, then takes over `other`'s.
    DatabaseUpdateObserver& operator=(DatabaseUpdateObserver&& other) noexcept;

    // Whether notices are being heard: false without a session bus, and after a move from it.
    bool isObserving() const noexcept { return token_ != nullptr; }

private:
    std::unique_ptr<DistributedNotificationCenter::ObserverToken> token_;
    // Set only when `queue` is not the one the center delivers on; cleared on destruction.
    std::shared_ptr<std::atomic<bool>> active_;
};

}  // namespace notificationdb
