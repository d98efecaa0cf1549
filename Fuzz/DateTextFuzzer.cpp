// Date forms: bytes read as date text as FuzzCheck.hpp's model reads them; instants of years 0000...9999
// written as 23 characters that read back; numbers read as seconds since 1970.

#include "FuzzCheck.hpp"

#include <bit>
#include <cmath>
#include <cstring>
#include <string>

using namespace notificationdb;
using namespace notificationdb::fuzz;
using std::chrono::milliseconds, std::chrono::nanoseconds;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto parsed = parseDateText(text);
    const auto expected = modelDateText(text);
    FUZZ_CHECK(parsed == expected, text + (parsed ? " was read" : " was refused") + " unlike the model");
    if (parsed) {
        // Written back as the 23-character form of the same text.
        std::string full = text + std::string("T00:00:00.000").substr(text.size() - 10);
        full[10] = ' ';
        FUZZ_CHECK(formatDateText(*parsed) == full && parseDateText(full) == parsed,
                   text + " is not written back as " + full + ", or that does not read back");
    }
    if (size < 8) return 0;
    std::int64_t integer = 0;
    std::memcpy(&integer, data, 8);
    // Every instant of the years is written and reads back; the next millisecond outside them is not written.
    const Timestamp instant = at(earliest + std::int64_t(std::uint64_t(integer) % std::uint64_t(latest - earliest)));
    const auto written = formatDateText(instant);
    FUZZ_CHECK(written && written->size() == 23 && parseDateText(*written) == instant,
               std::to_string(instant.time_since_epoch().count()) + " ms: not 23 characters that read back");
    FUZZ_CHECK(!formatDateText(at(integer < 0 ? earliest - 1 : latest)), "year outside 0...9999");
    // A clock reading of any precision floors to its millisecond.
    const std::chrono::sys_time<nanoseconds> fine{nanoseconds(integer)};
    FUZZ_CHECK(Timestamp(fine).time_since_epoch() == std::chrono::floor<milliseconds>(fine.time_since_epoch()),
               "a clock reading did not floor to its millisecond");
    // Seconds since 1970 floor to milliseconds (also before 1970); `slack` allows for double rounding.
    for (const double value : {std::bit_cast<double>(integer), double(integer)}) {
        const auto date = dateFromSecondsSince1970(value);
        const long double exact = static_cast<long double>(value) * 1000.0L;
        const long double slack = std::fabs(exact) * 1e-15L;
        if (!std::isfinite(value) || exact < earliest - 1.0L || exact > latest + 1.0L) {
            FUZZ_CHECK(!date, std::to_string(value) + " s was read outside the years");
        } else if (exact > earliest + 1.0L && exact < latest - 1.0L) {
            const auto read = static_cast<long double>(date ? date->time_since_epoch().count() : latest);
            FUZZ_CHECK(date && read <= exact + slack && (read > exact - 1.0L - slack || read == std::floor(exact)),
                       std::to_string(value) + " s was not read as the millisecond that holds it");
        }
    }
    return 0;
}
