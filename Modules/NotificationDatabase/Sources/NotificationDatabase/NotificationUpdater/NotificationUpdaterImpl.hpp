#pragma once

#include <NotificationDatabase/Export.hpp>

#include <NotificationDatabase/NotificationDatabaseProtocols.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

namespace notificationdb {

// Saves batches of incoming notifications through a store and prunes the stored set: after
// each pass no notification created 30 days (2,592,000 s) or more before the pass remains, and
// at most 100 per customer (notifications without customer form one group). Holds no lock,
// thread or state of its own; reaches the database only through `NotificationDatabaseProtocol`.
class NOTIFICATIONDB_API NotificationUpdaterImpl final : public NotificationUpdater {
public:
    // The current time; a function returning `std::chrono::system_clock::now()` serves.
    using Clock = std::function<Timestamp()>;

    static constexpr std::chrono::seconds ageLimit{2'592'000};  // 30 days: older ones are pruned
    static constexpr std::size_t perCustomerLimit = 100;        // the newest kept per customer

    // `now` supplies the current time for pruning; the system clock when empty.
    explicit NotificationUpdaterImpl(std::shared_ptr<NotificationDatabaseProtocol> store, Clock now = {});

    void receive(const std::vector<NotificationModelInfo>& notifications) override;
    void cleanUp() override;
    void updateStatus(const NotificationIDs& notificationIDs, NotificationStatus status) override;
    void updateButtonVisibility(const NotificationIDs& notificationIDs, bool isVisible) override;

    const std::shared_ptr<NotificationDatabaseProtocol>& store() const noexcept { return store_; }  // its store

private:
    void save(const NotificationModelInfoSet& notifications);

    std::shared_ptr<NotificationDatabaseProtocol> store_;
    Clock now_;
};

}  // namespace notificationdb
