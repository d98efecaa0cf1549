#pragma once

#include <NotificationDatabase/Export.hpp>

#include <chrono>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace notificationdb {

// A point in time at millisecond precision, the precision at which the database stores dates.
// It holds every instant of years 0000 to 9999 (and far beyond). Any `std::chrono::sys_time`
// converts to it implicitly, floored to its millisecond (toward the past), so a host passes
// `std::chrono::system_clock::now()` as it is.
class Timestamp {
public:
    using duration = std::chrono::milliseconds;          // the precision kept
    using time_point = std::chrono::sys_time<duration>;  // the same instant as a `sys_time`

    // 1970-01-01 00:00:00.000 UTC.
    constexpr Timestamp() noexcept = default;
    // `instant`, floored to its millisecond.
    template <class Duration>
    constexpr Timestamp(std::chrono::sys_time<Duration> instant) noexcept  // NOLINT(google-explicit-constructor)
        : instant_(std::chrono::floor<duration>(instant)) {}

    // The instant as a `sys_time` of milliseconds, and the milliseconds since 1970 alone.
    constexpr time_point sysTime() const noexcept { return instant_; }
    constexpr duration time_since_epoch() const noexcept { return instant_.time_since_epoch(); }  // since 1970

    friend constexpr bool operator==(Timestamp, Timestamp) noexcept = default;
    friend constexpr std::strong_ordering operator<=>(Timestamp lhs, Timestamp rhs) noexcept {
        return lhs.instant_ <=> rhs.instant_;
    }
    friend constexpr Timestamp operator+(Timestamp instant, duration offset) noexcept {
        return instant.instant_ + offset;
    }
    friend constexpr Timestamp operator-(Timestamp instant, duration offset) noexcept {
        return instant.instant_ - offset;
    }
    friend constexpr duration operator-(Timestamp lhs, Timestamp rhs) noexcept { return lhs.instant_ - rhs.instant_; }

private:
    time_point instant_{};
};

// The stored text form of a point in time: UTC, 23 characters, "2024-03-05 17:04:09.250". The
// process's time zone plays no part. Instants outside years 0000...9999 have no such form and
// give nullopt.
NOTIFICATIONDB_API std::optional<std::string> formatDateText(Timestamp instant);

// Reads the stored text form and its shortened forms, all in UTC: "YYYY-MM-DD HH:MM:SS.SSS"
// (exactly three fraction digits), "YYYY-MM-DD HH:MM:SS", "YYYY-MM-DD HH:MM" and "YYYY-MM-DD",
// each also with "T" in place of the space. Any other text, or an impossible date or time,
// gives nullopt.
NOTIFICATIONDB_API std::optional<Timestamp> parseDateText(std::string_view text);

// A number of seconds since 1970-01-01 00:00:00 UTC, floored to its millisecond; nullopt for
// NaN, infinities and values outside years 0000...9999.
NOTIFICATIONDB_API std::optional<Timestamp> dateFromSecondsSince1970(double seconds);

}  // namespace notificationdb
