#pragma once

#include <NotificationDatabase/Export.hpp>

#include <string_view>

namespace notificationdb {

// Whether two names are equal when ASCII letters are compared without regard to case: the way
// SQLite compares the names of tables and columns.
constexpr bool equalsIgnoringCase(std::string_view lhs, std::string_view rhs) noexcept {
    if (lhs.size() != rhs.size()) return false;
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    for (std::size_t i = 0; i < lhs.size(); ++i) {
        if (lower(lhs[i]) != lower(rhs[i])) return false;
    }
    return true;
}

}  // namespace notificationdb
