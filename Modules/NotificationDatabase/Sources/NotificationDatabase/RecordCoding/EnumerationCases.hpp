#pragma once

#include <NotificationDatabase/Database/Names.hpp>

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <type_traits>

namespace notificationdb {

// The cases of a stored enumeration, by raw value: `names[i]` is the name of the case whose raw
// value is `i`, and `typeName` names the enumeration in messages. Each enumeration of the
// records specialises it.
template <class Enumeration>
struct EnumerationCases;

// An enumeration whose cases are listed in `EnumerationCases`.
template <class Enumeration>
concept CaseEnumeration = std::is_enum_v<Enumeration> && requires {
    { EnumerationCases<Enumeration>::names.size() } -> std::convertible_to<std::size_t>;
    { EnumerationCases<Enumeration>::typeName } -> std::convertible_to<std::string_view>;
};

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

// The case of that name in any letter case ("newapp" is `newApp`); nullopt for any other text.
template <CaseEnumeration Enumeration>
constexpr std::optional<Enumeration> fromCaseName(std::string_view name) noexcept {
    const auto& names = EnumerationCases<Enumeration>::names;
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (equalsIgnoringCase(names[i], name)) return static_cast<Enumeration>(i);
    }
    return std::nullopt;
}

}  // namespace notificationdb
