#include "ListFormatting.hpp"

#include "JsonCoding.hpp"

#include <optional>
#include <string>

namespace notificationdb::tool {

namespace {

std::string quoted(const std::string& text) {
    return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string optionalText(const std::optional<std::string>& text) {
    return text ? quoted(*text) : "-";
}

template <class Integer>
std::string optionalNumber(const std::optional<Integer>& value) {
    return value ? std::to_string(*value) : "-";
}

void printButton(std::ostream& out, const NotificationButton& button) {
    out << "     button " << optionalNumber(button.id()) << ": " << optionalText(button.title)
        << (button.visible ? " visible" : " hidden") << ", action "
        << (button.actionKind ? std::string(caseName(*button.actionKind)) : "-") << ", buttonId "
        << optionalText(button.buttonId);
    if (button.userAction) out << ", " << button.userAction->size() << " bytes of action data";
    out << '\n';
}

}  // namespace

void printNotificationList(std::ostream& out, const std::vector<NotificationModelInfo>& infos) {
    if (infos.empty()) {
        out << "no notifications\n";
        return;
    }
    for (const auto& info : infos) {
        const auto& notification = info.notification;
        out << '#' << optionalNumber(notification.id()) << "  "
            << formatDateText(notification.createdDate).value_or("?") << "  " << caseName(notification.notificationKind)
            << "  " << caseName(notification.status) << "  customer " << optionalText(notification.customerId())
            << "  app " << optionalNumber(notification.appId) << "  version " << quoted(notification.version)
            << (notification.isMarketing ? "  marketing" : "") << '\n';
        out << "     title " << optionalText(notification.title) << '\n';
        out << "     body " << optionalText(notification.body) << '\n';
        if (notification.bannerUrl) out << "     banner " << quoted(*notification.bannerUrl) << '\n';
        out << "     tag " << quoted(notification.analyticsTag) << '\n';
        if (info.actionButton) printButton(out, *info.actionButton);
    }
}

}  // namespace notificationdb::tool
