// Fuzzes the date text forms: reading arbitrary bytes as a date, writing instants back as text,
// and reading numbers of seconds since 1970.
//
// The reader is checked against an acceptor and a calendar written here independently of the
// library: text is read exactly when it has one of the accepted shapes and names a real date and
// time, and then reads as the instant that the calendar computes. Writing that instant gives the
// text in its full 23-character form, and every written text reads back as the same instant.

#include "FuzzCheck.hpp"

#include <NotificationDatabase/NotificationModel/DateText.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace {

using notificationdb::Timestamp;
using std::chrono::milliseconds;

std::int64_t millisecondsOf(Timestamp instant) {
    return instant.time_since_epoch().count();
}

// The instants a date can name, in milliseconds since 1970: years 0000...9999.
constexpr std::int64_t kEarliestMilliseconds = -62167219200000;
constexpr std::int64_t kLatestMilliseconds = 253402300800000;  // excluded

std::string show(std::string_view text) {
    std::string shown;
    for (unsigned char c : text) {
        if (c >= 0x20 && c < 0x7F && c != '\\') {
            shown += static_cast<char>(c);
        } else {
            static constexpr char hex[] = "0123456789abcdef";
            shown += "\\x";
            shown += hex[c >> 4];
            shown += hex[c & 15];
        }
    }
    return '"' + shown + '"';
}

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar (H. Hinnant's algorithm).
std::int64_t daysFromCivil(std::int64_t year, unsigned month, unsigned day) {
    year -= month <= 2 ? 1 : 0;
    const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
    const auto yearOfEra = static_cast<unsigned>(year - era * 400);
    const unsigned dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + static_cast<std::int64_t>(dayOfEra) - 719468;
}

unsigned daysInMonth(int year, int month) {
    static constexpr unsigned lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    return month == 2 && leap ? 29 : lengths[month - 1];
}

// What reading `text` must give: the instant in milliseconds since 1970 and the full text form
// that writing it gives, or nothing when the text must be refused.
struct Expected {
    std::int64_t milliseconds;
    std::string canonical;
};

std::optional<Expected> expectedReading(std::string_view text) {
    // 'd' is a digit, 'T' the space or the letter T; anything else must match itself. The date
    // alone, with hours and minutes, with seconds, or with exactly three fraction digits.
    static constexpr std::string_view shape = "dddd-dd-ddTdd:dd:dd.ddd";
    const std::size_t size = text.size();
    if (size != 10 && size != 16 && size != 19 && size != 23) return std::nullopt;
    for (std::size_t i = 0; i < size; ++i) {
        const char c = text[i];
        switch (shape[i]) {
            case 'd':
                if (c < '0' || c > '9') return std::nullopt;
                break;
            case 'T':
                if (c != ' ' && c != 'T') return std::nullopt;
                break;
            default:
                if (c != shape[i]) return std::nullopt;
        }
    }
    const auto number = [text](std::size_t position, std::size_t count) {
        int value = 0;
        for (std::size_t i = position; i < position + count && i < text.size(); ++i) {
            value = value * 10 + (text[i] - '0');
        }
        return value;
    };
    const int year = number(0, 4);
    const int month = number(5, 2);
    const int day = number(8, 2);
    const int hour = size > 10 ? number(11, 2) : 0;
    const int minute = size > 10 ? number(14, 2) : 0;
    const int second = size > 16 ? number(17, 2) : 0;
    int millisecond = 0;
    for (std::size_t i = 20; i < 23; ++i) {
        millisecond = millisecond * 10 + (i < size ? text[i] - '0' : 0);
    }
    if (month < 1 || month > 12 || day < 1 || static_cast<unsigned>(day) > daysInMonth(year, month)) {
        return std::nullopt;
    }
    if (hour > 23 || minute > 59 || second > 59) return std::nullopt;
    const std::int64_t instant =
        ((daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day)) * 24 + hour) * 60 + minute) *
            60000 +
        second * 1000 + millisecond;

    Expected expected;
    expected.milliseconds = instant;
    static constexpr std::string_view zero = "0000-00-00 00:00:00.000";
    expected.canonical = std::string(text.substr(0, zero.size()));
    if (expected.canonical.size() > 10) expected.canonical[10] = ' ';
    expected.canonical += zero.substr(expected.canonical.size());
    return expected;
}

// Writing must succeed for every instant of years 0000...9999 and give 23 characters that read
// back as the same instant.
void checkRoundTrip(Timestamp instant, const std::string& origin) {
    const auto text = notificationdb::formatDateText(instant);
    FUZZ_CHECK(text.has_value(), "an instant inside the range of dates was not written, from " + origin);
    FUZZ_CHECK(text->size() == 23, "written text " + show(*text) + " is not 23 characters long");
    const auto back = notificationdb::parseDateText(*text);
    FUZZ_CHECK(back.has_value(), "written text " + show(*text) + " does not read back");
    FUZZ_CHECK(*back == instant, "written text " + show(*text) + " reads back as another instant, from " + origin);
}

void checkText(std::string_view text) {
    const auto parsed = notificationdb::parseDateText(text);
    const auto expected = expectedReading(text);
    FUZZ_CHECK(parsed.has_value() == expected.has_value(),
               show(text) + (parsed ? " was read but must be refused" : " was refused but must be read"));
    if (!parsed) return;
    FUZZ_CHECK(millisecondsOf(*parsed) == expected->milliseconds, show(text) + " reads as the wrong instant");
    checkRoundTrip(*parsed, "text " + show(text));
    FUZZ_CHECK(*notificationdb::formatDateText(*parsed) == expected->canonical,
               show(text) + " is written back as " + show(*notificationdb::formatDateText(*parsed)) + ", not " +
                   show(expected->canonical));
}

void checkSeconds(double seconds) {
    const auto date = notificationdb::dateFromSecondsSince1970(seconds);
    const std::string origin = "seconds " + std::to_string(seconds);
    if (!std::isfinite(seconds)) {
        FUZZ_CHECK(!date.has_value(), "a non-finite number was read as a date");
        return;
    }
    // A millisecond of slack at each end of the range covers the rounding of seconds * 1000.
    const long double earliest = static_cast<long double>(kEarliestMilliseconds) / 1000.0L;
    const long double latest = static_cast<long double>(kLatestMilliseconds) / 1000.0L;
    if (seconds > earliest + 0.001L && seconds < latest - 0.001L) {
        FUZZ_CHECK(date.has_value(), origin + " inside the range of dates was refused");
    } else if (seconds < earliest - 0.001L || seconds > latest + 0.001L) {
        FUZZ_CHECK(!date.has_value(), origin + " outside the range of dates was read");
    }
    if (!date) return;
    const long double exact = static_cast<long double>(seconds) * 1000.0L;
    const auto read = static_cast<long double>(millisecondsOf(*date));
    // Flooring toward the past, allowing for the rounding of the product in double.
    FUZZ_CHECK(read <= exact + 1.0L && read >= exact - 1.0L - std::fabs(exact) * 1e-15L,
               origin + " was read as " + std::to_string(millisecondsOf(*date)) + " ms");
    checkRoundTrip(*date, origin);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    checkText(std::string_view(reinterpret_cast<const char*>(data), size));

    if (size >= 8) {
        double seconds = 0;
        std::memcpy(&seconds, data, sizeof seconds);
        checkSeconds(seconds);
        std::int64_t integer = 0;
        std::memcpy(&integer, data, sizeof integer);
        // INTEGER columns reach the reader as doubles.
        checkSeconds(static_cast<double>(integer));
        // Any instant of the range is written, and one outside it is not.
        const auto span = static_cast<std::uint64_t>(kLatestMilliseconds - kEarliestMilliseconds);
        const auto offset = static_cast<std::int64_t>(static_cast<std::uint64_t>(integer) % span);
        checkRoundTrip(Timestamp(Timestamp::time_point(milliseconds(kEarliestMilliseconds + offset))),
                       "milliseconds " + std::to_string(kEarliestMilliseconds + offset));
        const auto outside =
            integer < 0 ? kEarliestMilliseconds - 1 - (integer & 0xffff) : kLatestMilliseconds + (integer & 0xffff);
        FUZZ_CHECK(!notificationdb::formatDateText(Timestamp(Timestamp::time_point(milliseconds(outside)))),
                   "an instant outside years 0000...9999 was written");
        // A system clock reading converts to its millisecond, floored toward the past.
        const std::chrono::sys_time<std::chrono::nanoseconds> fine{std::chrono::nanoseconds(integer)};
        FUZZ_CHECK(Timestamp(fine).time_since_epoch() == std::chrono::floor<milliseconds>(fine.time_since_epoch()),
                   "a nanosecond instant did not floor to its millisecond");
    }
    return 0;
}
