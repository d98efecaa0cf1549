#include "NotificationDatabase/NotificationModel/DateText.hpp"

#include <cmath>
#include <cstdint>

namespace notificationdb {

namespace {

using std::chrono::days;
using std::chrono::milliseconds;

// Milliseconds since 1970 of 0000-01-01 00:00:00 and of 10000-01-01 00:00:00 (exclusive).
constexpr std::int64_t kEarliestMilliseconds = -62167219200000;
constexpr std::int64_t kLatestMilliseconds = 253402300800000;

// Reads exactly `count` digits at `position`.
bool readDigits(std::string_view text, std::size_t position, std::size_t count, int& value) {
    if (position + count > text.size()) return false;
    value = 0;
    for (std::size_t i = position; i < position + count; ++i) {
        const char c = text[i];
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    return true;
}

}  // namespace

std::optional<std::string> formatDateText(Timestamp instant) {
    const std::int64_t total = instant.time_since_epoch().count();
    if (total < kEarliestMilliseconds || total >= kLatestMilliseconds) return std::nullopt;
    const auto sinceEpoch = milliseconds(total);
    // floor, not truncation toward zero: an instant before 1970 must not round up.
    const auto day = std::chrono::floor<days>(sinceEpoch);
    const std::chrono::year_month_day date{std::chrono::sys_days(day)};
    const std::chrono::hh_mm_ss time{sinceEpoch - day};

    char buffer[23];
    const auto put = [&buffer](std::size_t position, unsigned value, std::size_t width) {
        for (std::size_t i = 0; i < width; ++i) {
            buffer[position + width - 1 - i] = static_cast<char>('0' + value % 10);
            value /= 10;
        }
    };
    put(0, static_cast<unsigned>(static_cast<int>(date.year())), 4);
    buffer[4] = '-';
    put(5, static_cast<unsigned>(date.month()), 2);
    buffer[7] = '-';
    put(8, static_cast<unsigned>(date.day()), 2);
    buffer[10] = ' ';
    put(11, static_cast<unsigned>(time.hours().count()), 2);
    buffer[13] = ':';
    put(14, static_cast<unsigned>(time.minutes().count()), 2);
    buffer[16] = ':';
    put(17, static_cast<unsigned>(time.seconds().count()), 2);
    buffer[19] = '.';
    put(20, static_cast<unsigned>(time.subseconds().count()), 3);
    return std::string(buffer, sizeof buffer);
}

std::optional<Timestamp> parseDateText(std::string_view text) {
    // The date, then optionally a separator and HH:MM, then optionally :SS, then optionally
    // exactly three fraction digits: lengths 10, 16, 19 and 23 are the only forms.
    if (text.size() != 10 && text.size() != 16 && text.size() != 19 && text.size() != 23) return std::nullopt;
    int year = 0;
    int month = 0;
    int day = 0;
    if (!readDigits(text, 0, 4, year) || text[4] != '-' || !readDigits(text, 5, 2, month) || text[7] != '-' ||
        !readDigits(text, 8, 2, day)) {
        return std::nullopt;
    }
    const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                                           std::chrono::day(static_cast<unsigned>(day))};
    if (!date.ok()) return std::nullopt;

    int hour = 0;
    int minute = 0;
    int second = 0;
    int millisecond = 0;
    if (text.size() >= 16 && ((text[10] != ' ' && text[10] != 'T') || !readDigits(text, 11, 2, hour) ||
                              text[13] != ':' || !readDigits(text, 14, 2, minute))) {
        return std::nullopt;
    }
    if (text.size() >= 19 && (text[16] != ':' || !readDigits(text, 17, 2, second))) return std::nullopt;
    if (text.size() == 23 && (text[19] != '.' || !readDigits(text, 20, 3, millisecond))) return std::nullopt;
    if (hour > 23 || minute > 59 || second > 59) return std::nullopt;

    const auto instant = std::chrono::sys_days(date) + std::chrono::hours(hour) + std::chrono::minutes(minute) +
                         std::chrono::seconds(second) + milliseconds(millisecond);
    return Timestamp(instant);
}

std::optional<Timestamp> dateFromSecondsSince1970(double seconds) {
    if (!std::isfinite(seconds)) return std::nullopt;
    const double value = std::floor(seconds * 1000.0);
    if (value < static_cast<double>(kEarliestMilliseconds) || value >= static_cast<double>(kLatestMilliseconds)) {
        return std::nullopt;
    }
    return Timestamp(Timestamp::time_point(milliseconds(static_cast<std::int64_t>(value))));
}

}  // namespace notificationdb
