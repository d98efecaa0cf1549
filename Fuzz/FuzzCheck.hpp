#pragma once

// Checks and models of the fuzz targets: a broken check prints and aborts, a crash libFuzzer keeps.

#include <NotificationDatabase/RecordCoding/Timestamp.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

namespace notificationdb::fuzz {

// Set when the seeds replay as a test, where each seed's declaration must hold (not under libFuzzer).
inline bool replaying = false;
// The file being replayed.
inline std::string replayedName;

[[noreturn]] inline void failCheck(const char* file, int line, const char* condition, const std::string& detail) {
    std::fprintf(stderr, "%s:%d: fuzz check failed: %s: %s\n", file, line, condition, detail.c_str());
    std::abort();
}

// Years 0000...9999 in milliseconds since 1970, the end excluded; `at` is the instant of such a count.
constexpr std::int64_t earliest = -62167219200000, latest = 253402300800000;
inline const auto at = [](std::int64_t ms) { return Timestamp(Timestamp::time_point(std::chrono::milliseconds(ms))); };

// The instant date text names: "YYYY-MM-DD", then " HH:MM" (or "THH:MM"), ":SS" and ".SSS", in
// UTC; nullopt for other text or an impossible date or time.
inline std::optional<Timestamp> modelDateText(const std::string& text) {
    using namespace std::chrono;
    constexpr std::string_view shape = "0000-00-00 00:00:00.000";
    if (text.size() != 10 && text.size() != 16 && text.size() != 19 && text.size() != 23) return std::nullopt;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (shape[i] == '0' ? c < '0' || c > '9' : shape[i] == ' ' ? c != ' ' && c != 'T' : c != shape[i])
            return std::nullopt;
    }
    const auto num = [&text](std::size_t i, std::size_t size) {
        return i < text.size() ? std::stoi(text.substr(i, size)) : 0;
    };
    const year_month_day date{year(num(0, 4)), month(num(5, 2)), day(num(8, 2))};
    if (!date.ok() || num(11, 2) > 23 || num(14, 2) > 59 || num(17, 2) > 59) return std::nullopt;
    const auto time = hours(num(11, 2)) + minutes(num(14, 2)) + seconds(num(17, 2)) + milliseconds(num(20, 3));
    return Timestamp(sys_days(date) + time);
}

}  // namespace notificationdb::fuzz

#define FUZZ_CHECK(condition, detail) \
    ((condition) ? void() : ::notificationdb::fuzz::failCheck(__FILE__, __LINE__, #condition, (detail)))
