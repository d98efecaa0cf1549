#include <NotificationDatabase/Database/DateText.hpp>

#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace notificationdb {
namespace {

using namespace std::chrono;
using namespace std::chrono_literals;

Timestamp utc(int y, unsigned m, unsigned d, hours h = 0h, minutes min = 0min, seconds s = 0s, milliseconds ms = 0ms) {
    return Timestamp(sys_days(year(y) / month(m) / day(d)) + h + min + s + ms);
}

Timestamp fromMilliseconds(std::int64_t value) {
    return Timestamp(milliseconds(value));
}

// The stored form is exactly 23 characters in UTC; anything finer than a millisecond is
// dropped toward the past, also before 1970 where truncation toward zero would round up.
TEST(DateText, FormatsUtcWithMillisecondsTruncatedTowardThePast) {
    const Timestamp instant = utc(2024, 3, 5, 17h, 4min, 9s, 250ms);
    EXPECT_EQ(formatDateText(instant), "2024-03-05 17:04:09.250");
    EXPECT_EQ(formatDateText(instant + 400us), "2024-03-05 17:04:09.250");
    EXPECT_EQ(formatDateText(instant + 999999ns), "2024-03-05 17:04:09.250");
    EXPECT_EQ(formatDateText(instant + 1ms), "2024-03-05 17:04:09.251");
    EXPECT_EQ(formatDateText(utc(2024, 3, 5, 17h, 4min, 9s, 5ms)), "2024-03-05 17:04:09.005");
    EXPECT_EQ(formatDateText(utc(2023, 12, 31, 23h, 59min, 59s, 999ms) + 1ms), "2024-01-01 00:00:00.000");
    EXPECT_EQ(formatDateText(utc(2024, 2, 29, 12h)), "2024-02-29 12:00:00.000");

    EXPECT_EQ(formatDateText(Timestamp{}), "1970-01-01 00:00:00.000");
    EXPECT_EQ(formatDateText(Timestamp{} - 1ns), "1969-12-31 23:59:59.999");
    EXPECT_EQ(formatDateText(Timestamp{} - 1ms), "1969-12-31 23:59:59.999");
    EXPECT_EQ(formatDateText(Timestamp{} - 1001us), "1969-12-31 23:59:59.998");
    EXPECT_EQ(formatDateText(utc(1900, 1, 1, 0h, 0min, 0s, 1ms) - 400us), "1900-01-01 00:00:00.000");

    // The ends of what a Timestamp holds have stored forms that read back.
    const Timestamp earliest = std::chrono::ceil<milliseconds>(Timestamp::min());
    const Timestamp latest = std::chrono::floor<milliseconds>(Timestamp::max());
    EXPECT_EQ(parseDateText(formatDateText(earliest).value()), earliest);
    EXPECT_EQ(parseDateText(formatDateText(latest).value()), latest);
    EXPECT_EQ(formatDateText(Timestamp::max()), formatDateText(latest));
}

// The process's time zone plays no part: midnight UTC stays midnight in the stored form and
// the stored form reads back as the same UTC instant.
TEST(DateText, IgnoresTheLocalTimeZone) {
    const Timestamp midnight = utc(2024, 3, 5);
    for (const char* zone : {"America/New_York", "Asia/Kolkata", "Pacific/Kiritimati"}) {
        SCOPED_TRACE(zone);
        testing::ScopedEnvironment timeZone("TZ", std::string(zone));
        ::tzset();
        EXPECT_EQ(formatDateText(midnight), "2024-03-05 00:00:00.000");
        EXPECT_EQ(parseDateText("2024-03-05 00:00:00.000"), midnight);
        EXPECT_EQ(parseDateText("2024-03-05"), midnight);
    }
    ::tzset();
}

// The full form and its shortened forms, with a space or a T, read in UTC; missing parts are zero
// and fractions of one to nine digits are cut to milliseconds.
TEST(DateText, ParsesTheStoredFormAndItsShortenedForms) {
    const Timestamp base = utc(2024, 3, 5, 17h, 4min, 9s);
    const std::vector<std::pair<std::string, Timestamp>> accepted{
        {"2024-03-05 17:04:09.250", base + 250ms},
        {"2024-03-05T17:04:09.250", base + 250ms},
        {"2024-03-05 17:04:09", base},
        {"2024-03-05T17:04:09", base},
        {"2024-03-05 17:04", base - 9s},
        {"2024-03-05T17:04", base - 9s},
        {"2024-03-05", utc(2024, 3, 5)},
        {"2024-03-05 17:04:09.2", base + 200ms},
        {"2024-03-05 17:04:09.25", base + 250ms},
        {"2024-03-05 17:04:09.2509", base + 250ms},
        {"2024-03-05 17:04:09.25099", base + 250ms},
        {"2024-03-05 17:04:09.250999", base + 250ms},
        {"2024-03-05 17:04:09.2509999", base + 250ms},
        {"2024-03-05 17:04:09.25099999", base + 250ms},
        {"2024-03-05 17:04:09.999999999", base + 999ms},
        {"2024-02-29 23:59:59.999", utc(2024, 2, 29, 23h, 59min, 59s, 999ms)},
        {"1969-12-31 23:59:59.999", Timestamp{} - 1ms},
        {"1900-01-01 00:00:00.000", utc(1900, 1, 1)},
        {"2200-12-31 23:59:59.999", utc(2200, 12, 31, 23h, 59min, 59s, 999ms)},
    };
    for (const auto& [text, expected] : accepted) {
        EXPECT_EQ(parseDateText(text), expected) << text;
    }

    // clang-format off
    const std::vector<std::string> rejected{
        "", "2024", "2024-03", "2024-3-05", "2024-03-5", "24-03-05", "2024/03/05", "+024-03-05",
        "2024-13-01", "2024-00-10", "2024-02-30", "2023-02-29", "2024-04-31", "2024-03-00",
        "2024-03-05 24:00", "2024-03-05 24:00:00.000", "2024-03-05 23:60", "2024-03-05 23:59:60",
        "2024-03-05 17", "2024-03-05 17:4", "2024-03-05 17:04:9", "2024-03-05 -1:04",
        "2024-03-05 17:04:09.", "2024-03-05 17:04:09.1234567890", "2024-03-05 17:04:09.25x",
        "2024-03-05 17:04:09.250Z", "2024-03-05 17:04:09Z", "2024-03-05T17:04:09+01:00",
        "2024-03-05 17:04:09,250", "2024-03-05x", "2024-03-05 ", "2024-03-05  17:04",
        "2024-03-05t17:04", " 2024-03-05", "2024-03-05 17:04:09.250 ", "yesterday"};
    // clang-format on
    for (const auto& text : rejected) {
        EXPECT_EQ(parseDateText(text), std::nullopt) << '"' << text << '"';
    }

    // A well-formed date that a Timestamp cannot hold fails; it never wraps around to another
    // instant.
    const std::vector<std::string> far{"0000-01-01 00:00:00.000", "1677-09-21 00:12:43.145", "1677-09-21 00:12:43.146",
                                       "2262-04-11 23:47:16.854", "2262-04-11 23:47:16.855", "2300-01-01 00:00:00.000",
                                       "9999-12-31 23:59:59.999"};
    for (const auto& text : far) {
        const auto parsed = parseDateText(text);
        if (parsed) {
            EXPECT_EQ(formatDateText(*parsed), text);
        }
        if constexpr (std::is_same_v<Timestamp::duration, nanoseconds>) {
            EXPECT_EQ(parsed.has_value(), text == "1677-09-21 00:12:43.146" || text == "2262-04-11 23:47:16.854")
                << text;
        }
    }
}

// Numeric dates count seconds since 1970 and keep whole milliseconds, toward the past.
TEST(DateText, ReadsSecondsSince1970) {
    EXPECT_EQ(dateFromSecondsSince1970(0), Timestamp{});
    EXPECT_EQ(dateFromSecondsSince1970(1709658249), utc(2024, 3, 5, 17h, 4min, 9s));
    EXPECT_EQ(dateFromSecondsSince1970(1709658249.25), utc(2024, 3, 5, 17h, 4min, 9s, 250ms));
    EXPECT_EQ(dateFromSecondsSince1970(1.0004), Timestamp{} + 1s);
    EXPECT_EQ(dateFromSecondsSince1970(-1), Timestamp{} - 1s);
    EXPECT_EQ(dateFromSecondsSince1970(-0.0005), Timestamp{} - 1ms);
    EXPECT_EQ(dateFromSecondsSince1970(-86400.5), Timestamp{} - 86400s - 500ms);

    for (double invalid :
         {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
          -std::numeric_limits<double>::infinity(), 1e300, -1e300, 1e17, 253402300800.0, -62167219200.001}) {
        EXPECT_EQ(dateFromSecondsSince1970(invalid), std::nullopt) << invalid;
    }
    // Far instants are either exact or refused, never wrapped around.
    for (double far : {1e10, 1e11, -1e10, -1e11, 253402300799.0}) {
        if (const auto date = dateFromSecondsSince1970(far)) {
            EXPECT_EQ(duration_cast<milliseconds>(date->time_since_epoch()).count(),
                      static_cast<std::int64_t>(far) * 1000)
                << far;
        }
    }
    EXPECT_EQ(dateFromSecondsSince1970(9e9), Timestamp{} + 9000000000s);
}

// Every instant with a stored form reads back as itself cut to the millisecond, and the text
// sorts in time order, which the newest-first listing relies on.
TEST(DateText, RoundTripsAndSortsInTimeOrderOverRandomInstants) {
    std::mt19937_64 random(20240305);
    const auto earliest = std::chrono::ceil<milliseconds>(Timestamp::min()).time_since_epoch().count();
    const auto latest = std::chrono::floor<milliseconds>(Timestamp::max()).time_since_epoch().count();
    std::uniform_int_distribution<std::int64_t> anyMillisecond(std::max<std::int64_t>(earliest, -62167219200000),
                                                               std::min<std::int64_t>(latest - 1, 253402300799999));
    std::uniform_int_distribution<std::int64_t> subMillisecond(0, 999999);
    std::vector<std::pair<Timestamp, std::string>> samples;
    for (int i = 0; i < 20000; ++i) {
        const Timestamp whole = fromMilliseconds(anyMillisecond(random));
        const Timestamp instant = whole + nanoseconds(subMillisecond(random));
        const auto text = formatDateText(instant);
        ASSERT_TRUE(text.has_value());
        ASSERT_EQ(text->size(), 23U) << *text;
        ASSERT_EQ(parseDateText(*text), whole) << *text;
        samples.emplace_back(whole, *text);
    }
    std::sort(samples.begin(), samples.end());
    for (std::size_t i = 1; i < samples.size(); ++i) {
        ASSERT_LE(samples[i - 1].second, samples[i].second) << "text order differs from time order";
    }
}

}  // namespace
}  // namespace notificationdb
