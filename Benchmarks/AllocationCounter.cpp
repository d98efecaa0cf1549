#include "AllocationCounter.hpp"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace notificationdb::bench {

namespace {

std::atomic<bool> counting{false};
std::atomic<std::int64_t> current{0};
std::atomic<std::int64_t> peak{0};
std::atomic<std::int64_t> count{0};

void noteAllocation(void* pointer) noexcept {
    if (pointer == nullptr || !counting.load(std::memory_order_relaxed)) return;
    const auto size = static_cast<std::int64_t>(malloc_usable_size(pointer));
    const std::int64_t now = current.fetch_add(size, std::memory_order_relaxed) + size;
    std::int64_t highest = peak.load(std::memory_order_relaxed);
    while (now > highest && !peak.compare_exchange_weak(highest, now, std::memory_order_relaxed)) {
    }
    count.fetch_add(1, std::memory_order_relaxed);
}

void noteRelease(void* pointer) noexcept {
    if (pointer == nullptr || !counting.load(std::memory_order_relaxed)) return;
    // Memory allocated before the probe started and released during it counts as negative;
    // the peak is still measured from the level at the start.
    current.fetch_sub(static_cast<std::int64_t>(malloc_usable_size(pointer)), std::memory_order_relaxed);
}

void* allocate(std::size_t size) {
    void* pointer = std::malloc(size == 0 ? 1 : size);
    if (pointer == nullptr) throw std::bad_alloc();
    noteAllocation(pointer);
    return pointer;
}

void* allocateNoThrow(std::size_t size) noexcept {
    void* pointer = std::malloc(size == 0 ? 1 : size);
    noteAllocation(pointer);
    return pointer;
}

void release(void* pointer) noexcept {
    noteRelease(pointer);
    std::free(pointer);
}

}  // namespace

AllocationProbe::AllocationProbe() noexcept {
    current.store(0, std::memory_order_relaxed);
    peak.store(0, std::memory_order_relaxed);
    count.store(0, std::memory_order_relaxed);
    counting.store(true, std::memory_order_seq_cst);
}

AllocationProbe::~AllocationProbe() {
    counting.store(false, std::memory_order_seq_cst);
}

std::int64_t AllocationProbe::peakBytes() const noexcept {
    return peak.load(std::memory_order_relaxed);
}

std::int64_t AllocationProbe::currentBytes() const noexcept {
    return current.load(std::memory_order_relaxed);
}

std::int64_t AllocationProbe::allocationCount() const noexcept {
    return count.load(std::memory_order_relaxed);
}

}  // namespace notificationdb::bench

// The replaced global operators. Aligned forms keep their default implementation, which pairs
// its own allocation and release functions; nothing measured here uses them.
void* operator new(std::size_t size) {
    return notificationdb::bench::allocate(size);
}
void* operator new[](std::size_t size) {
    return notificationdb::bench::allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t& /*unused*/) noexcept {
    return notificationdb::bench::allocateNoThrow(size);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*unused*/) noexcept {
    return notificationdb::bench::allocateNoThrow(size);
}
void operator delete(void* pointer) noexcept {
    notificationdb::bench::release(pointer);
}
void operator delete[](void* pointer) noexcept {
    notificationdb::bench::release(pointer);
}
void operator delete(void* pointer, std::size_t /*size*/) noexcept {
    notificationdb::bench::release(pointer);
}
void operator delete[](void* pointer, std::size_t /*size*/) noexcept {
    notificationdb::bench::release(pointer);
}
void operator delete(void* pointer, const std::nothrow_t& /*unused*/) noexcept {
    notificationdb::bench::release(pointer);
}
void operator delete[](void* pointer, const std::nothrow_t& /*unused*/) noexcept {
    notificationdb::bench::release(pointer);
}
