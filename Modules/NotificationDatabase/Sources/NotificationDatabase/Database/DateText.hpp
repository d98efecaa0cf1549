#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace notificationdb {

using Timestamp = std::chrono::system_clock::time_point;

// The stored text form of a point in time: UTC, 23 characters, "2024-03-05 17:04:09.250".
// Finer fractions are truncated toward the past; the process's time zone plays no part.
// Years outside 0000...9999, and instants whose millisecond could not be read back into a
// time point, cannot be written and give nullopt.
std::optional<std::string> formatDateText(Timestamp instant);

// Reads the stored text form and its shortened forms, all in UTC: "YYYY-MM-DD HH:MM:SS.SSS"
// (1 to 9 fraction digits, truncated to milliseconds), "YYYY-MM-DD HH:MM:SS",
// "YYYY-MM-DD HH:MM" and "YYYY-MM-DD", each also with "T" in place of the space. Any other text,
// an impossible date or time, or an instant that `Timestamp` cannot hold (with nanosecond ticks,
// before 1677-09-21 or after 2262-04-11) gives nullopt.
std::optional<Timestamp> parseDateText(std::string_view text);

// A number of seconds since 1970-01-01 00:00:00 UTC, truncated to milliseconds toward the
// past; nullopt for NaN, infinities, values outside years 0000...9999 and instants that
// `Timestamp` cannot hold.
std::optional<Timestamp> dateFromSecondsSince1970(double seconds);

}  // namespace notificationdb
