#pragma once

#include <NotificationDatabase/Export.hpp>
#include <NotificationDatabase/Platform/MainQueue.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace notificationdb {

// Broadcasts named notices to every process of the user, over the D-Bus session bus.
//
// A post is the signal
//   path      /org/notificationdb/DistributedNotificationCenter
//   interface org.notificationdb.DistributedNotificationCenter
//   member    the notice name (it must be a valid D-Bus member name)
// with no arguments. Without a reachable session bus a post is logged once as an error and
// dropped; nothing throws.
class NOTIFICATIONDB_API DistributedNotificationCenter {
public:
    // The object path of the signal.
    static constexpr std::string_view objectPath = "/org/notificationdb/DistributedNotificationCenter";
    // The interface of the signal.
    static constexpr std::string_view interfaceName = "org.notificationdb.DistributedNotificationCenter";

    using Handler = std::function<void(const std::string& name)>;  // called with the notice's name

    // Stops the observation it stands for when destroyed: from then on the handler is not called,
    // not even for notices already waiting on the main queue (a call running on another thread
    // at that moment may still finish).
    class NOTIFICATIONDB_API ObserverToken {
    public:
        virtual ~ObserverToken() = default;
    };

    virtual ~DistributedNotificationCenter() = default;

    // The process-wide center (the D-Bus one unless replaced).
    static std::shared_ptr<DistributedNotificationCenter> defaultCenter();
    // Replaces the process-wide center; `nullptr` restores the D-Bus one.
    static void setDefaultCenter(std::shared_ptr<DistributedNotificationCenter> center);

    // Sends the notice `name` to all processes of the user, this one included, without waiting
    // for the bus: what the bus does not take at once goes out later, in order. Failures are
    // logged once per kind and process.
    virtual void post(const std::string& name) = 0;
    // Returns once every notice posted so far is handed to the bus, or after `timeout`; what is
    // left then is dropped with one logged message. For a process about to exit. Does nothing
    // unless the center keeps notices back.
    virtual void flush(std::chrono::milliseconds timeout);

    // Calls `handler` on the main queue (`MainQueue::main()`) for every post of `name` by any
    // process made after this returns. Each observer has its own bus connection and listening
    // thread. Returns null when the bus cannot be reached or `name` is not a valid member name
    // (the failure is logged). The observation lasts as long as the token: a token dropped at
    // once ends it before any notice arrives.
    [[nodiscard]] virtual std::unique_ptr<ObserverToken> addObserver(const std::string& name, Handler handler) = 0;
};

// The session-bus implementation (sd-bus). A notice the bus does not take at once (a stalled or
// slow bus daemon, or one still answering the connection) waits in the connection's queue, which
// `mainQueue` (`MainQueue::main()` when empty) drives again every 50 ms until it is empty or the
// connection fails; a post never blocks its caller. What is still queued when the process ends
// through `exit`, or when the center is destroyed, gets up to 2 s to go out.
NOTIFICATIONDB_API std::shared_ptr<DistributedNotificationCenter> makeDBusNotificationCenter(
    MainQueue::Scheduler mainQueue = {});

}  // namespace notificationdb
