#pragma once

#include <memory>
#include <mutex>
#include <utility>

namespace notificationdb::detail {

// The value `make()` builds, once per call site, on first use; never destroyed, so that code
// running during static destruction (a late log line, a scheduled post) can still reach it.
template <class Make>
auto& neverDestroyed(Make make) {
    static auto* const value = new auto(make());
    return *value;
}

// A process-wide service that a host or a test may replace: the one `MakeDefault` builds,
// unless another was installed.
template <class Service, auto MakeDefault>
class ReplaceableDefault {
public:
    static std::shared_ptr<Service> get() {
        Slot& slot = theSlot();
        std::lock_guard lock(slot.mutex);
        if (!slot.service) slot.service = MakeDefault();
        return slot.service;
    }
    // `nullptr` brings the default back on the next `get()`.
    static void set(std::shared_ptr<Service> service) {
        Slot& slot = theSlot();
        std::lock_guard lock(slot.mutex);
        slot.service = std::move(service);
    }

private:
    struct Slot {
        std::mutex mutex;
        std::shared_ptr<Service> service;
    };
    static Slot& theSlot() {
        return neverDestroyed([] { return Slot(); });
    }
};

}  // namespace notificationdb::detail
