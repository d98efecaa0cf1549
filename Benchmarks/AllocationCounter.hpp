#pragma once

// Counts what the benchmark binary allocates through operator new while a probe is active, so
// that a case can report the peak heap growth of one call. Counting is off otherwise: outside a
// probe the replaced operators cost one relaxed load more than the default ones.

#include <cstdint>

namespace notificationdb::bench {

class AllocationProbe {
public:
    // Starts counting from zero.
    AllocationProbe() noexcept;
    ~AllocationProbe();
    AllocationProbe(const AllocationProbe&) = delete;
    AllocationProbe& operator=(const AllocationProbe&) = delete;

    // Highest number of bytes (as the allocator hands them out) held at once since the start.
    std::int64_t peakBytes() const noexcept;
    // Bytes still held now that were allocated since the start.
    std::int64_t currentBytes() const noexcept;
    // Number of allocations since the start.
    std::int64_t allocationCount() const noexcept;
};

}  // namespace notificationdb::bench
