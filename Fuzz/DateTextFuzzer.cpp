// Fuzzes the date forms: arbitrary bytes read as date text, instants written back as text, and
// numbers read as seconds since 1970.
//
// The reader is checked against an acceptor and a calendar written here, apart from the
// library: text is read exactly when it has one of the four shapes and names a real date and
// time, and then as the instant the calendar computes. Writing it gives the 23-character form,
// which reads back as the same instant; every instant of years 0000...9999 is written.

#include "FuzzCheck.hpp"

#include <NotificationDatabase/NotificationModel/DateText.hpp>

#include <cmath>
#include <cstring>
#include <optional>
#include <string>

namespace {

using notificationdb::Timestamp;
using std::chrono::milliseconds;

// Years 0000...9999 in milliseconds since 1970, the end excluded.
constexpr std::int64_t kEarliest = -62167219200000;
constexpr std::int64_t kLatest = 253402300800000;

Timestamp at(std::int64_t ms) {
    return Timestamp(Timestamp::time_point(milliseconds(ms)));
}

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar.
std::int64_t daysFromCivil(std::int64_t year, int month, int day) {
    static constexpr int before[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    const std::int64_t y = year - (month <= 2 ? 1 : 0);  // leap days counted through February
    const std::int64_t leaps = y / 4 - y / 100 + y / 400 - (1969 / 4 - 1969 / 100 + 1969 / 400) + (y < 0 ? -1 : 0);
    return (year - 1970) * 365 + leaps + before[month - 1] + day - 1;
}

bool isLeap(int year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

// The instant `text` names, or nothing when it must be refused.
std::optional<std::int64_t> expectedReading(const std::string& text) {
    static const std::string shape = "dddd-dd-ddTdd:dd:dd.ddd";
    if (text.size() != 10 && text.size() != 16 && text.size() != 19 && text.size() != 23) return std::nullopt;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (shape[i] == 'd' ? !digit : shape[i] == 'T' ? text[i] != ' ' && text[i] != 'T' : text[i] != shape[i]) {
            return std::nullopt;
        }
    }
    const auto number = [&](std::size_t at, std::size_t count) {
        return at + count > text.size() ? 0 : std::stoi(text.substr(at, count));
    };
    const int year = number(0, 4), month = number(5, 2), day = number(8, 2);
    static constexpr int lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12 || day < 1 || day > lengths[month - 1] + (month == 2 && isLeap(year))) {
        return std::nullopt;
    }
    const int hour = number(11, 2), minute = number(14, 2), second = number(17, 2);
    if (hour > 23 || minute > 59 || second > 59) return std::nullopt;
    return ((daysFromCivil(year, month, day) * 24 + hour) * 60 + minute) * 60000 + second * 1000 + number(20, 3);
}

void checkRoundTrip(Timestamp instant) {
    const auto text = notificationdb::formatDateText(instant);
    const auto ms = std::to_string(instant.time_since_epoch().count());
    FUZZ_CHECK(text && text->size() == 23, "the instant " + ms + " ms was not written in 23 characters");
    FUZZ_CHECK(notificationdb::parseDateText(*text) == instant, *text + " does not read back as " + ms + " ms");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto parsed = notificationdb::parseDateText(text);
    const auto expected = expectedReading(text);
    FUZZ_CHECK(parsed.has_value() == expected.has_value(), text + (parsed ? " was read" : " was refused"));
    if (parsed) {
        FUZZ_CHECK(parsed->time_since_epoch().count() == *expected, text + " reads as the wrong instant");
        checkRoundTrip(*parsed);
        std::string full = text.substr(0, 10) + " " + (text.size() > 10 ? text.substr(11) : "") +
                           std::string("00:00:00.000").substr(text.size() > 10 ? text.size() - 11 : 0);
        FUZZ_CHECK(*notificationdb::formatDateText(*parsed) == full, text + " is not written back as " + full);
    }
    if (size < 8) return 0;
    std::int64_t integer = 0;
    double seconds = 0;
    std::memcpy(&integer, data, 8);
    std::memcpy(&seconds, data, 8);
    // Every instant of the years is written; the next millisecond outside them is not.
    checkRoundTrip(at(kEarliest + std::int64_t(std::uint64_t(integer) % std::uint64_t(kLatest - kEarliest))));
    FUZZ_CHECK(!notificationdb::formatDateText(at(integer < 0 ? kEarliest - 1 : kLatest)), "year outside 0...9999");
    // A clock reading of any precision floors to its millisecond.
    const std::chrono::sys_time<std::chrono::nanoseconds> fine{std::chrono::nanoseconds(integer)};
    FUZZ_CHECK(Timestamp(fine).time_since_epoch() == std::chrono::floor<milliseconds>(fine.time_since_epoch()),
               "a clock reading did not floor to its millisecond");
    // Seconds since 1970, floored to milliseconds (toward the past, also before 1970), inside
    // the years; `slack` allows for the rounding of seconds * 1000 in double.
    for (const double value : {seconds, double(integer)}) {
        const auto date = notificationdb::dateFromSecondsSince1970(value);
        const long double exact = static_cast<long double>(value) * 1000.0L;
        const long double slack = std::fabs(exact) * 1e-15L;
        if (!std::isfinite(value) || exact < kEarliest - 1.0L || exact > kLatest + 1.0L) {
            FUZZ_CHECK(!date, std::to_string(value) + " s was read outside the years");
        } else if (exact > kEarliest + 1.0L && exact < kLatest - 1.0L) {
            const auto read = static_cast<long double>(date ? date->time_since_epoch().count() : kLatest);
            FUZZ_CHECK(date && read <= exact + slack && (read > exact - 1.0L - slack || read == std::floor(exact)),
                       std::to_string(value) + " s was not read as the millisecond that holds it");
        }
    }
    return 0;
}
