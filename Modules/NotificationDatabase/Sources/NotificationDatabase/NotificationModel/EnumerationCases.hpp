#pragma once

#include <NotificationDatabase/Export.hpp>

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <type_traits>

namespace notificationdb {

// The cases of a stored enumeration, by raw value: `names[i]` is the name of the case whose
// raw value is `i`. Each enumeration of the records specialises it.
template <class Enumeration>
struct EnumerationCases;

// An enumeration whose cases are listed in `EnumerationCases`.
template <class Enumeration>
concept CaseEnumeration = std::is_enum_v<Enumeration> && requires {
    { EnumerationCases<Enumeration>::names.size() } -> std::convertible_to<std::size_t>;
};

// Whether two texts are equal when ASCII letters are compared without regard to case (the
// way SQLite compares names).
constexpr bool equalsIgnoringCase(std::string_view lhs, std::string_view rhs) noexcept {
    if (lhs.size() != rhs.size()) return false;
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    for (std::size_t i = 0; i < lhs.size(); ++i) {
        if (lower(lhs[i]) != lower(rhs[i])) return false;
    }
    return true;
}

// The raw value of a case: what the database stores for it.
template <CaseEnumeration Enumeration>
constexpr std::int64_t rawValue(Enumeration value) noexcept {
    return static_cast<std::int64_t>(value);
}

// Strict construction: the case whose raw value `raw` is, nullopt for every other integer.
template <CaseEnumeration Enumeration>
constexpr std::optional<Enumeration> fromRawValue(std::int64_t raw) noexcept {
    constexpr auto count = static_cast<std::int64_t>(EnumerationCases<Enumeration>::names.size());
    if (raw < 0 || raw >= count) return std::nullopt;
    return static_cast<Enumeration>(raw);
}

// The case's name as written in code ("new", "newApp", "openLink").
template <CaseEnumeration Enumeration>
constexpr std::string_view caseName(Enumeration value) noexcept {
    return EnumerationCases<Enumeration>::names[static_cast<std::size_t>(value)];
}

// The case of that name, compared without regard to case ("newapp" is `newApp`); nullopt for
// any other text.
template <CaseEnumeration Enumeration>
constexpr std::optional<Enumeration> fromCaseName(std::string_view name) noexcept {
    const auto& names = EnumerationCases<Enumeration>::names;
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (equalsIgnoringCase(names[i], name)) return static_cast<Enumeration>(i);
    }
    return std::nullopt;
}

}  // namespace notificationdb
