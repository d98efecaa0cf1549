#pragma once

// How the tool names the cases of the stored enumerations in messages, help and completion.

#include <NotificationDatabase/RecordCoding/EnumerationCases.hpp>

#include <string>
#include <string_view>

namespace notificationdb::tool {

// The case names in raw-value order, joined by `separator`: "new, shown, read".
template <CaseEnumeration Enumeration>
std::string caseNames(std::string_view separator = ", ") {
    std::string text;
    for (const std::string_view name : EnumerationCases<Enumeration>::names) {
        if (!text.empty()) text += separator;
        text += name;
    }
    return text;
}

// What a message or a help text offers: "new, shown, read, or 0 to 2".
template <CaseEnumeration Enumeration>
std::string validValues() {
    return caseNames<Enumeration>() + ", or 0 to " + std::to_string(EnumerationCases<Enumeration>::names.size() - 1);
}

}  // namespace notificationdb::tool
