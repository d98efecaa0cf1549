#pragma once

// The change notices of the stores of this process that are scheduled and not yet posted.

#include <NotificationDatabase/Platform/DistributedNotificationCenter.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include <memory>

namespace notificationdb {

class ChangeNotices {
public:
    // After a committed change: schedules the post of `databaseUpdated()` through `center` (the
    // process-wide one when null) on `mainQueue` (`MainQueue::main()` when empty), 1.0 s from now.
    static void schedule(const MainQueue::Scheduler& mainQueue, std::shared_ptr<DistributedNotificationCenter> center);
    // Posts every notice scheduled and not yet posted at once, in the order of their commits
    // (their jobs then post nothing), and returns once every notice posted so far is handed to the
    // bus or, after 2 s, dropped with one logged message.
    static void postAll();
};

}  // namespace notificationdb
