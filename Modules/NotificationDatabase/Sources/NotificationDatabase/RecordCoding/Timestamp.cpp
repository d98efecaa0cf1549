#include "NotificationDatabase/RecordCoding/Timestamp.hpp"

#include <cmath>
#include <cstdint>

namespace notificationdb {

namespace {

using std::chrono::days;
using std::chrono::milliseconds;

// Milliseconds since 1970 of 0000-01-01 00:00:00 and of 10000-01-01 00:00:00 (exclusive).
constexpr std::int64_t earliestMilliseconds = -62167219200000;
constexpr std::int64_t latestMilliseconds = 253402300800000;

// The two digits at `position` as a number, or a value above 99 when either is no digit.
unsigned twoDigits(const char* text, std::size_t position) noexcept {
    const auto tens = static_cast<unsigned>(static_cast<unsigned char>(text[position]) - '0');
    const auto ones = static_cast<unsigned>(static_cast<unsigned char>(text[position + 1]) - '0');
    return tens < 10 && ones < 10 ? tens * 10 + ones : 100;
}

}  // namespace

std::optional<std::string> formatDateText(Timestamp instant) {
    const std::int64_t total = instant.time_since_epoch().count();
    if (total < earliestMilliseconds || total >= latestMilliseconds) return std::nullopt;
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
    const std::size_t size = text.size();
    if (size != 10 && size != 16 && size != 19 && size != 23) return std::nullopt;
    const char* const p = text.data();
    const unsigned century = twoDigits(p, 0);
    const unsigned yearOfCentury = twoDigits(p, 2);
    const unsigned month = twoDigits(p, 5);
    const unsigned day = twoDigits(p, 8);
    if (century > 99 || yearOfCentury > 99 || p[4] != '-' || p[7] != '-' || month > 99 || day > 99) {
        return std::nullopt;
    }
    const std::chrono::year_month_day date{std::chrono::year(static_cast<int>(century * 100 + yearOfCentury)),
                                           std::chrono::month(month), std::chrono::day(day)};
    if (!date.ok()) return std::nullopt;

    unsigned hour = 0;
    unsigned minute = 0;
    unsigned second = 0;
    unsigned millisecond = 0;
    if (size >= 16) {
        hour = twoDigits(p, 11);
        minute = twoDigits(p, 14);
        if ((p[10] != ' ' && p[10] != 'T') || p[13] != ':' || hour > 23 || minute > 59) return std::nullopt;
    }
    if (size >= 19) {
        second = twoDigits(p, 17);
        if (p[16] != ':' || second > 59) return std::nullopt;
    }
    if (size == 23) {
        const unsigned hundreds = static_cast<unsigned>(static_cast<unsigned char>(p[20]) - '0');
        const unsigned rest = twoDigits(p, 21);
        if (p[19] != '.' || hundreds > 9 || rest > 99) return std::nullopt;
        millisecond = hundreds * 100 + rest;
    }
    const auto instant = std::chrono::sys_days(date) + std::chrono::hours(hour) + std::chrono::minutes(minute) +
                         std::chrono::seconds(second) + milliseconds(millisecond);
    return Timestamp(instant);
}

std::optional<Timestamp> dateFromSecondsSince1970(double seconds) {
    if (!std::isfinite(seconds)) return std::nullopt;
    const double value = std::floor(seconds * 1000.0);
    if (value < static_cast<double>(earliestMilliseconds) || value >= static_cast<double>(latestMilliseconds)) {
        return std::nullopt;
    }
    return Timestamp(Timestamp::time_point(milliseconds(static_cast<std::int64_t>(value))));
}

}  // namespace notificationdb
