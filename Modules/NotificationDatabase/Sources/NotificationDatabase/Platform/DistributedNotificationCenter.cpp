#include "NotificationDatabase/Platform/DistributedNotificationCenter.hpp"

#include "NotificationDatabase/Platform/Logger.hpp"
#include "NotificationDatabase/Platform/MainQueue.hpp"
#include "NotificationDatabase/Platform/ProcessWide.hpp"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace notificationdb {

namespace {

// How long a center that is going away, or a process that ends, waits for the bus to take the
// notices still queued.
constexpr auto lastFlushTimeout = std::chrono::milliseconds(2000);

// Bound on the bus's own method calls (registering the match rule of an observer).
constexpr std::uint64_t methodCallTimeoutMicroseconds = 5'000'000;

struct BusCloser {
    void operator()(sd_bus* bus) const noexcept { sd_bus_close_unref(bus); }
};
using BusPointer = std::unique_ptr<sd_bus, BusCloser>;

struct SlotReleaser {
    void operator()(sd_bus_slot* slot) const noexcept { sd_bus_slot_unref(slot); }
};
using SlotPointer = std::unique_ptr<sd_bus_slot, SlotReleaser>;

// D-Bus member names: 1 to 255 characters of [A-Za-z0-9_], not starting with a digit.
bool isValidMemberName(std::string_view name) {
    if (name.empty() || name.size() > 255) return false;
    if (name.front() >= '0' && name.front() <= '9') return false;
    return std::ranges::all_of(name, [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
    });
}

// sd-bus reports failures as negative errno values.
std::string describeBusError(int negativeErrno) {
    return std::error_code(-negativeErrno, std::generic_category()).message();
}

// Posts can fail on every database change; one message per kind of failure and process is
// enough to diagnose it without flooding the host's log.
enum class PostFailure : std::size_t { invalidName = 0, noBus = 1, sendFailed = 2, notTaken = 3 };

void reportPostFailure(PostFailure kind, const std::string& name, const std::string& reason) {
    static std::array<std::atomic<bool>, 4> reported{};
    if (reported.at(static_cast<std::size_t>(kind)).exchange(true)) return;
    Logger::module()->log(LogLevel::error, "Unable to post distributed notification " + name + ": " + reason);
}

void reportObserverFailure(const std::string& name, const std::string& reason) {
    Logger::module()->log(LogLevel::error, "Unable to observe distributed notification " + name + ": " + reason);
}

int openSessionBus(BusPointer& bus) {
    sd_bus* raw = nullptr;
    int result = sd_bus_open_user(&raw);
    if (result < 0) return result;
    bus.reset(raw);
    return sd_bus_set_method_call_timeout(raw, methodCallTimeoutMicroseconds);
}

std::uint64_t monotonicMicroseconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000U + static_cast<std::uint64_t>(now.tv_nsec) / 1'000U;
}

// Drives `bus` until everything queued on it has been handed to the bus daemon (connecting and
// authenticating first if needed), or fails with -ETIMEDOUT after `timeout`. Unlike
// sd_bus_flush, never waits without bound.
int flushWithin(sd_bus* bus, std::chrono::microseconds timeout) {
    const std::uint64_t deadline = monotonicMicroseconds() + static_cast<std::uint64_t>(timeout.count());
    for (;;) {
        int result = sd_bus_process(bus, nullptr);
        if (result < 0) return result;
        if (result > 0) continue;

        std::uint64_t queued = 0;
        result = sd_bus_get_n_queued_write(bus, &queued);
        if (result < 0) return result;
        if (queued == 0) return 0;

        std::uint64_t now = monotonicMicroseconds();
        if (now >= deadline) return -ETIMEDOUT;
        result = sd_bus_wait(bus, deadline - now);
        if (result < 0 && result != -EINTR) return result;
    }
}

// The centers whose connection still held notices after a post. A process that ends through
// `exit` (or by returning from `main`) gives each of them up to 2 s to hand those to the bus, so
// that a notice posted just before the end is not lost with the connection.
class FlushedAtExit {
public:
    static void add(const std::weak_ptr<DistributedNotificationCenter>& center) {
        auto& registry = shared();
        std::call_once(registry.registered_, [] { std::atexit([] { shared().flushAll(); }); });
        std::lock_guard lock(registry.mutex_);
        registry.centers_.insert(center);
    }

private:
    static FlushedAtExit& shared() {
        return detail::neverDestroyed([] { return FlushedAtExit(); });
    }
    void flushAll() {
        std::vector<std::shared_ptr<DistributedNotificationCenter>> alive;
        {
            std::lock_guard lock(mutex_);
            for (const auto& center : centers_) {
                if (auto locked = center.lock()) alive.push_back(std::move(locked));
            }
            centers_.clear();
        }
        for (const auto& center : alive) center->flush(lastFlushTimeout);
    }

    std::once_flag registered_;
    std::mutex mutex_;
    std::set<std::weak_ptr<DistributedNotificationCenter>, std::owner_less<>> centers_;
};

// What the main queue needs to call an observer's handler; outlives the token while jobs for
// it are still pending.
struct Delivery {
    std::string name;
    DistributedNotificationCenter::Handler handler;
    std::atomic<bool> active{true};
};

// The connection of one observer and the loop that listens on it. Owned jointly by the token
// and the listening thread; only that thread touches the bus once listening has begun.
class Listener {
public:
    Listener(BusPointer bus, int wakeDescriptor, std::shared_ptr<Delivery> delivery)
        : bus_(std::move(bus)), wakeDescriptor_(wakeDescriptor), delivery_(std::move(delivery)) {}
    ~Listener() {
        slot_.reset();
        bus_.reset();
        ::close(wakeDescriptor_);
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Asks the bus daemon to route the notice to this connection; on return the daemon has
    // the rule, so any post made afterwards is heard.
    int subscribe() {
        sd_bus_slot* slot = nullptr;
        std::string path = std::string(DistributedNotificationCenter::objectPath);
        std::string interface = std::string(DistributedNotificationCenter::interfaceName);
        int result = sd_bus_match_signal(bus_.get(), &slot, nullptr, path.c_str(), interface.c_str(),
                                         delivery_->name.c_str(), &Listener::onSignal, this);
        if (result >= 0) slot_.reset(slot);
        return result;
    }

    void requestStop() noexcept {
        stopRequested_.store(true);
        std::uint64_t one = 1;
        // Wakes the poll below; a full counter already means "wake up", so the result does
        // not matter.
        [[maybe_unused]] auto written = ::write(wakeDescriptor_, &one, sizeof one);
    }

    void listen() noexcept {
        int failure = runLoop();
        if (failure < 0 && !stopRequested_.load()) {
            Logger::module()->log(LogLevel::error, "Distributed notification observer for " + delivery_->name +
                                                       " stopped: " + describeBusError(failure));
        }
    }

private:
    // Returns 0 when asked to stop, or the bus failure that ended the observation.
    int runLoop() {
        sd_bus* bus = bus_.get();
        while (!stopRequested_.load()) {
            int result = sd_bus_process(bus, nullptr);
            if (result < 0) return result;
            if (result > 0) continue;

            int events = sd_bus_get_events(bus);
            if (events < 0) return events;
            std::uint64_t wakeAt = UINT64_MAX;
            result = sd_bus_get_timeout(bus, &wakeAt);
            if (result < 0) return result;
            int timeoutMilliseconds = -1;
            if (wakeAt != UINT64_MAX) {
                std::uint64_t now = monotonicMicroseconds();
                std::uint64_t remaining = wakeAt > now ? (wakeAt - now + 999) / 1000 : 0;
                timeoutMilliseconds = static_cast<int>(std::min<std::uint64_t>(remaining, INT_MAX));
            }

            std::array<pollfd, 2> descriptors{};
            descriptors[0] = pollfd{sd_bus_get_fd(bus), static_cast<short>(events), 0};
            descriptors[1] = pollfd{wakeDescriptor_, POLLIN, 0};
            if (::poll(descriptors.data(), descriptors.size(), timeoutMilliseconds) < 0 && errno != EINTR) {
                return -errno;
            }
        }
        return 0;
    }

    static int onSignal(sd_bus_message* /*message*/, void* userdata, sd_bus_error* /*error*/) {
        auto* listener = static_cast<Listener*>(userdata);
        try {
            MainQueue::main().asyncAfter(MainQueue::Clock::duration::zero(), [delivery = listener->delivery_] {
                if (delivery->active.load() && delivery->handler) delivery->handler(delivery->name);
            });
        } catch (...) {
            // Out of memory while scheduling: this notice is lost, the observation goes on.
        }
        return 0;
    }

    BusPointer bus_;
    SlotPointer slot_;
    int wakeDescriptor_;
    std::shared_ptr<Delivery> delivery_;
    std::atomic<bool> stopRequested_{false};
};

class DBusObserverToken final : public DistributedNotificationCenter::ObserverToken {
public:
    DBusObserverToken(const std::shared_ptr<Listener>& listener, std::shared_ptr<Delivery> delivery)
        : listener_(listener), delivery_(std::move(delivery)), thread_([listener] { listener->listen(); }) {}

    ~DBusObserverToken() override {
        // Jobs already on the main queue see this and skip the handler.
        delivery_->active.store(false);
        listener_->requestStop();
        // A handler run inline by a host scheduler may drop its own token on the listening
        // thread; that thread then finishes on its own and releases the connection.
        if (thread_.get_id() == std::this_thread::get_id()) {
            thread_.detach();
        } else {
            thread_.join();
        }
    }
    DBusObserverToken(const DBusObserverToken&) = delete;
    DBusObserverToken& operator=(const DBusObserverToken&) = delete;

private:
    std::shared_ptr<Listener> listener_;
    std::shared_ptr<Delivery> delivery_;
    std::thread thread_;
};

class DBusNotificationCenter final : public DistributedNotificationCenter,
                                     public std::enable_shared_from_this<DBusNotificationCenter> {
public:
    explicit DBusNotificationCenter(MainQueue::Scheduler mainQueue) : mainQueue_(std::move(mainQueue)) {}
    DBusNotificationCenter(const DBusNotificationCenter&) = delete;
    DBusNotificationCenter& operator=(const DBusNotificationCenter&) = delete;
    // Gives the notices still queued up to 2 s to go out.
    ~DBusNotificationCenter() override {
        if (bus_) flush(lastFlushTimeout);
    }

    void post(const std::string& name) override {
        if (!isValidMemberName(name)) {
            reportPostFailure(PostFailure::invalidName, name, "not a valid D-Bus member name");
            return;
        }
        static const std::string path(objectPath);
        static const std::string interface(interfaceName);

        std::lock_guard lock(mutex_);
        // A kept connection may have broken since the last post (bus restarted, process
        // forked); such a failure earns one retry on a fresh connection.
        for (int attempt = 0; attempt < 2; ++attempt) {
            if (bus_ && sd_bus_is_open(bus_.get()) <= 0) bus_.reset();
            const bool reused = static_cast<bool>(bus_);
            if (!bus_) {
                if (const int opened = openSessionBus(bus_); opened < 0) {
                    bus_.reset();
                    reportPostFailure(PostFailure::noBus, name, "no session bus (" + describeBusError(opened) + ")");
                    return;
                }
            }
            std::uint64_t queued = 0;
            sd_bus_get_n_queued_write(bus_.get(), &queued);
            if (queued >= maximumQueued) {
                // The bus has taken nothing for a long while: what waits is dropped, not hoarded.
                reportPostFailure(PostFailure::notTaken, name, "the session bus takes no notices");
                bus_.reset();
                return;
            }
            const int result = sd_bus_emit_signal(bus_.get(), path.c_str(), interface.c_str(), name.c_str(), nullptr);
            if (result >= 0) return drive(name);
            bus_.reset();
            if (!reused) {
                reportPostFailure(PostFailure::sendFailed, name, describeBusError(result));
                return;
            }
        }
    }

    void flush(std::chrono::milliseconds timeout) override {
        std::lock_guard lock(mutex_);
        if (!bus_) return;
        if (flushWithin(bus_.get(), timeout) >= 0) return;
        Logger::module()->log(LogLevel::error,
                              "Unable to post distributed notifications: the session bus did not take them within " +
                                  std::to_string(timeout.count()) + " ms");
        bus_.reset();
    }

    std::unique_ptr<ObserverToken> addObserver(const std::string& name, Handler handler) override {
        if (!isValidMemberName(name)) {
            reportObserverFailure(name, "not a valid D-Bus member name");
            return nullptr;
        }
        BusPointer bus;
        int result = openSessionBus(bus);
        if (result < 0) {
            reportObserverFailure(name, "no session bus (" + describeBusError(result) + ")");
            return nullptr;
        }
        int wakeDescriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (wakeDescriptor < 0) {
            reportObserverFailure(name, describeBusError(-errno));
            return nullptr;
        }
        auto delivery = std::make_shared<Delivery>();
        delivery->name = name;
        delivery->handler = std::move(handler);
        auto listener = std::make_shared<Listener>(std::move(bus), wakeDescriptor, delivery);
        result = listener->subscribe();
        if (result < 0) {
            reportObserverFailure(name, describeBusError(result));
            return nullptr;
        }
        return std::make_unique<DBusObserverToken>(std::move(listener), std::move(delivery));
    }

private:
    // The most notices that wait for the bus before the waiting ones are dropped.
    static constexpr std::uint64_t maximumQueued = 1000;
    static constexpr auto retryInterval = std::chrono::milliseconds(50);

    // Hands to the bus whatever it takes now, without waiting; while some is left, drives the
    // connection again from the main queue a moment later. Called with `mutex_` held.
    void drive(const std::string& name) {
        int result = 0;
        while ((result = sd_bus_process(bus_.get(), nullptr)) > 0) {
        }
        std::uint64_t queued = 0;
        if (result >= 0) result = sd_bus_get_n_queued_write(bus_.get(), &queued);
        if (result < 0) {
            reportPostFailure(PostFailure::sendFailed, name, describeBusError(result));
            bus_.reset();
            return;
        }
        if (queued == 0 || retryScheduled_) return;
        FlushedAtExit::add(weak_from_this());
        retryScheduled_ = true;
        MainQueue::Job retry = [weak = weak_from_this(), name] {
            const auto self = weak.lock();
            if (!self) return;
            std::lock_guard lock(self->mutex_);
            self->retryScheduled_ = false;
            if (self->bus_) self->drive(name);
        };
        if (mainQueue_) {
            mainQueue_(MainQueue::Clock::now() + retryInterval, std::move(retry));
        } else {
            MainQueue::main().asyncAfter(retryInterval, std::move(retry));
        }
    }

    MainQueue::Scheduler mainQueue_;
    std::mutex mutex_;
    BusPointer bus_;
    bool retryScheduled_ = false;
};

}  // namespace

// A single center for the process: posts scheduled by static destructors must still find one.
using DefaultCenter = detail::ReplaceableDefault<DistributedNotificationCenter, [] { return makeDBusNotificationCenter(); }>;

std::shared_ptr<DistributedNotificationCenter> DistributedNotificationCenter::defaultCenter() {
    return DefaultCenter::get();
}

void DistributedNotificationCenter::setDefaultCenter(std::shared_ptr<DistributedNotificationCenter> center) {
    DefaultCenter::set(std::move(center));
}

void DistributedNotificationCenter::flush(std::chrono::milliseconds /*timeout*/) {}

std::shared_ptr<DistributedNotificationCenter> makeDBusNotificationCenter(MainQueue::Scheduler mainQueue) {
    return std::make_shared<DBusNotificationCenter>(std::move(mainQueue));
}

}  // namespace notificationdb
