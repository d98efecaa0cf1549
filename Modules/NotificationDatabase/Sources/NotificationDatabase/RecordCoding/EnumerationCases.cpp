#include "NotificationDatabase/RecordCoding/EnumerationCases.hpp"

#include "NotificationDatabase/Database/Names.hpp"

namespace notificationdb {

std::optional<std::size_t> findCaseName(std::span<const std::string_view> names, std::string_view name) noexcept {
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (equalsIgnoringCase(names[i], name)) return i;
    }
    return std::nullopt;
}

}  // namespace notificationdb
