#include <NotificationDatabase/NotificationUpdater/NotificationUpdaterImpl.hpp>

#include <algorithm>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace notificationdb {

NotificationUpdaterImpl::NotificationUpdaterImpl(std::shared_ptr<NotificationDatabaseProtocol> store, Clock now)
    : store_(std::move(store)), now_(std::move(now)) {
    if (!now_) now_ = [] { return std::chrono::system_clock::now(); };
}

void NotificationUpdaterImpl::receive(const std::vector<NotificationModelInfo>& notifications) {
    // Inserting in list order keeps the first of equal entries: the set refuses later equals.
    NotificationModelInfoSet distinct;
    for (const auto& notification : notifications) distinct.insert(notification);
    if (distinct.empty()) return;

    save(distinct);
    cleanUp();
}

void NotificationUpdaterImpl::save(const NotificationModelInfoSet& notifications) {
    // Each save is a transaction of its own; the store skips what it holds and logs its failures,
    // so one failed save does not stop the next.
    for (const auto& notification : notifications) store_->save(notification);
}

void NotificationUpdaterImpl::cleanUp() {
    const auto cutOff = now_() - ageLimit;
    std::vector<NotificationModelInfo> stored = store_->fetchNotifications(std::nullopt);

    // Marks by position in `stored`; the marked entries are moved out at the end.
    std::vector<bool> isExpired(stored.size(), false);
    for (std::size_t i = 0; i < stored.size(); ++i) {
        if (stored[i].notification.createdDate <= cutOff) isExpired[i] = true;
    }

    // Every entry counts toward its customer's limit, old ones included; entries without a
    // customer form one group of their own (nullopt is a key like any other).
    std::map<std::optional<std::string>, std::vector<std::size_t>> groups;
    for (std::size_t i = 0; i < stored.size(); ++i) groups[stored[i].notification.customerId()].push_back(i);

    for (auto& [customerId, group] : groups) {
        if (group.size() <= perCustomerLimit) continue;
        // Stable, so entries with equal dates keep the order in which the store returned them.
        std::stable_sort(group.begin(), group.end(), [&stored](std::size_t lhs, std::size_t rhs) {
            return stored[lhs].notification.createdDate > stored[rhs].notification.createdDate;
        });
        for (auto entry = group.begin() + static_cast<std::ptrdiff_t>(perCustomerLimit); entry != group.end();
             ++entry) {
            isExpired[*entry] = true;
        }
    }

    NotificationModelInfoSet expired;
    expired.reserve(static_cast<std::size_t>(std::count(isExpired.begin(), isExpired.end(), true)));
    for (std::size_t i = 0; i < stored.size(); ++i) {
        if (isExpired[i]) expired.insert(std::move(stored[i]));
    }
    if (!expired.empty()) store_->deleteNotifications(expired);
}

void NotificationUpdaterImpl::updateStatus(const NotificationIDs& notificationIDs, NotificationStatus status) {
    store_->updateStatus(notificationIDs, status);
}

void NotificationUpdaterImpl::updateButtonVisibility(const NotificationIDs& notificationIDs, bool isVisible) {
    store_->updateButtonVisibility(notificationIDs, isVisible);
}

}  // namespace notificationdb
