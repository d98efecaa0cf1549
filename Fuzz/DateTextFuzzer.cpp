// Fuzzes the date forms: arbitrary bytes read as date text, instants written back as text, and
// numbers read as seconds since 1970. Text is read exactly when the model of FuzzCheck.hpp takes
// it, as the instant the model computes. Writing gives the 23-character form, which reads back
// as the same instant; every instant of years 0000...9999 is written, none outside them.

#include "FuzzCheck.hpp"

#include <bit>
#include <cmath>
#include <cstring>
#include <string>

namespace {

using namespace notificationdb;
using namespace notificationdb::fuzz;
using std::chrono::milliseconds, std::chrono::nanoseconds;

void checkRoundTrip(Timestamp instant) {
    const auto text = formatDateText(instant);
    const auto ms = std::to_string(instant.time_since_epoch().count());
    FUZZ_CHECK(text && text->size() == 23, "the instant " + ms + " ms was not written in 23 characters");
    FUZZ_CHECK(parseDateText(*text) == instant, *text + " does not read back as " + ms + " ms");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto parsed = parseDateText(text);
    const auto expected = modelDateText(text);
    FUZZ_CHECK(parsed.has_value() == expected.has_value(), text + (parsed ? " was read" : " was refused"));
    if (parsed) {
        FUZZ_CHECK(parsed->time_since_epoch().count() == *expected, text + " reads as the wrong instant");
        checkRoundTrip(*parsed);
        std::string full = text + std::string("T00:00:00.000").substr(text.size() - 10);
        full[10] = ' ';
        FUZZ_CHECK(*formatDateText(*parsed) == full, text + " is not written back as " + full);
    }
    if (size < 8) return 0;
    std::int64_t integer = 0;
    std::memcpy(&integer, data, 8);
    const auto seconds = std::bit_cast<double>(integer);
    // Every instant of the years is written; the next millisecond outside them is not.
    checkRoundTrip(at(kEarliest + std::int64_t(std::uint64_t(integer) % std::uint64_t(kLatest - kEarliest))));
    FUZZ_CHECK(!formatDateText(at(integer < 0 ? kEarliest - 1 : kLatest)), "year outside 0...9999");
    // A clock reading of any precision floors to its millisecond.
    const std::chrono::sys_time<nanoseconds> fine{nanoseconds(integer)};
    FUZZ_CHECK(Timestamp(fine).time_since_epoch() == std::chrono::floor<milliseconds>(fine.time_since_epoch()),
               "a clock reading did not floor to its millisecond");
    // Seconds since 1970, floored to milliseconds (toward the past, also before 1970), inside
    // the years; `slack` allows for the rounding of seconds * 1000 in double.
    for (const double value : {seconds, double(integer)}) {
        const auto date = dateFromSecondsSince1970(value);
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
