// The date text forms: one example of each rule. The date-text fuzzer checks reading any text
// and writing any instant against a calendar of its own.

#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <ctime>
#include <limits>
#include <type_traits>

namespace notificationdb {
namespace {

using namespace std::chrono;

Timestamp utc(int y, unsigned m, unsigned d, hours h = 0h, minutes min = 0min, seconds s = 0s, milliseconds ms = 0ms) {
    return Timestamp(sys_days(year(y) / month(m) / day(d)) + h + min + s + ms);
}

// The stored form is exactly 23 characters in UTC; anything finer than a millisecond is
// dropped toward the past, also before 1970 where truncation toward zero would round up.
TEST(DateText, FormatsUtcWithMillisecondsTruncatedTowardThePast) {
    const Timestamp instant = utc(2024, 3, 5, 17h, 4min, 9s, 5ms);
    EXPECT_EQ(formatDateText(instant), "2024-03-05 17:04:09.005");
    EXPECT_EQ(formatDateText(instant + 999999ns), "2024-03-05 17:04:09.005");
    EXPECT_EQ(formatDateText(utc(2024, 2, 29, 23h, 59min, 59s, 999ms) + 1ms), "2024-03-01 00:00:00.000");
    EXPECT_EQ(formatDateText(Timestamp{} - 1ns), "1969-12-31 23:59:59.999");
    EXPECT_EQ(formatDateText(Timestamp{} - 1001us), "1969-12-31 23:59:59.998");

    // The ends of what a Timestamp holds have stored forms that read back.
    const Timestamp earliest = ceil<milliseconds>(Timestamp::min());
    const Timestamp latest = floor<milliseconds>(Timestamp::max());
    EXPECT_EQ(parseDateText(formatDateText(earliest).value()), earliest);
    EXPECT_EQ(parseDateText(formatDateText(Timestamp::max()).value()), latest);
}

// The process's time zone plays no part: midnight UTC stays midnight in the stored form and
// the stored form reads back as the same UTC instant.
TEST(DateText, IgnoresTheLocalTimeZone) {
    {
        testing::ScopedEnvironment timeZone("TZ", std::string("Asia/Kolkata"));
        ::tzset();
        EXPECT_EQ(formatDateText(utc(2024, 3, 5)), "2024-03-05 00:00:00.000");
        EXPECT_EQ(parseDateText("2024-03-05"), utc(2024, 3, 5));
    }
    ::tzset();
}

// The full form and its shortened forms, with a space or a T, read in UTC; missing parts are
// zero and fractions of one to nine digits are cut to milliseconds. Anything else is refused,
// and so is a well-formed date that a Timestamp cannot hold: it never wraps around.
TEST(DateText, ParsesTheStoredFormAndItsShortenedForms) {
    const Timestamp base = utc(2024, 3, 5, 17h, 4min, 9s);
    const std::pair<const char*, Timestamp> accepted[] = {
        {"2024-03-05 17:04:09.250", base + 250ms},
        {"2024-03-05T17:04:09.250", base + 250ms},
        {"2024-03-05T17:04:09", base},
        {"2024-03-05 17:04", base - 9s},
        {"2024-03-05", utc(2024, 3, 5)},
        {"2024-03-05 17:04:09.2", base + 200ms},
        {"2024-03-05 17:04:09.2509", base + 250ms},
        {"2024-03-05 17:04:09.999999999", base + 999ms},
        {"1969-12-31 23:59:59.999", Timestamp{} - 1ms},
    };
    for (const auto& [text, expected] : accepted) EXPECT_EQ(parseDateText(text), expected) << text;

    for (const char* text : {"", "2024-03", "2024-3-05", "2024/03/05", "2024-13-01", "2023-02-29", "2024-04-31",
                             "2024-03-05 24:00", "2024-03-05 23:59:60", "2024-03-05 17", "2024-03-05 17:04:09.",
                             "2024-03-05 17:04:09.1234567890", "2024-03-05 17:04:09.250Z", "2024-03-05T17:04:09+01:00",
                             "2024-03-05t17:04", " 2024-03-05", "2024-03-05 ", "yesterday"}) {
        EXPECT_EQ(parseDateText(text), std::nullopt) << '"' << text << '"';
    }
    for (const char* text : {"0000-01-01 00:00:00.000", "1677-09-21 00:12:43.145", "2262-04-11 23:47:16.855"}) {
        const auto parsed = parseDateText(text);
        if (parsed) {
            EXPECT_EQ(formatDateText(*parsed), text);
        }
        if constexpr (std::is_same_v<Timestamp::duration, nanoseconds>) {
            EXPECT_EQ(parsed, std::nullopt) << text;
        }
    }
}

// Numeric dates count seconds since 1970 and keep whole milliseconds, toward the past; what is
// no number or lies beyond year 9999 is refused.
TEST(DateText, ReadsSecondsSince1970) {
    EXPECT_EQ(dateFromSecondsSince1970(1709658249.25), utc(2024, 3, 5, 17h, 4min, 9s, 250ms));
    EXPECT_EQ(dateFromSecondsSince1970(1.0004), Timestamp{} + 1s);
    EXPECT_EQ(dateFromSecondsSince1970(-0.0005), Timestamp{} - 1ms);
    EXPECT_EQ(dateFromSecondsSince1970(-86400.5), Timestamp{} - 86400s - 500ms);
    for (double invalid : {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(), 1e300,
                           253402300800.0, -62167219200.001}) {
        EXPECT_EQ(dateFromSecondsSince1970(invalid), std::nullopt) << invalid;
    }
}

// The text sorts in time order across eras, which the newest-first listing relies on.
TEST(DateText, SortsInTimeOrder) {
    const Timestamp instants[] = {
        ceil<milliseconds>(Timestamp::min()),      utc(1900, 1, 1), Timestamp{} - 1ms,   Timestamp{},
        utc(1999, 12, 31, 23h, 59min, 59s, 999ms), utc(2000, 1, 1), utc(2024, 3, 5, 9h), utc(2024, 3, 5, 10h),
        floor<milliseconds>(Timestamp::max())};
    for (std::size_t i = 1; i < std::size(instants); ++i) {
        EXPECT_LT(formatDateText(instants[i - 1]).value(), formatDateText(instants[i]).value()) << i;
    }
}

}  // namespace
}  // namespace notificationdb
