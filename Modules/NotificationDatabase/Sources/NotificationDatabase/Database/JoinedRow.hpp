#pragma once

#include <NotificationDatabase/Database/RecordPersistence.hpp>
#include <NotificationDatabase/Database/Statement.hpp>
#include <NotificationDatabase/NotificationModel/NotificationModelInfo.hpp>

#include <optional>
#include <span>

namespace notificationdb {

// The rows of one run of a joined read, "notification" LEFT JOIN "notificationButton": where the
// pair's columns stand is looked up once, on the run's first row, and then serves every row of
// the run (the layout of a run's rows never changes). `NotificationModelInfo(const JoinedRow&)`
// reads the statement's current row.
class JoinedRow {
public:
    explicit JoinedRow(const Row& row);

    // The notification from the row's base columns. Throws `RecordDecodingError`.
    NotificationModel notification() const;
    // The button from the scope "notificationButton"; absent when the row has no such scope or
    // all its columns are NULL. Throws `RecordDecodingError`.
    std::optional<NotificationButton> actionButton() const;

private:
    Row base_;
    std::span<const int> notificationColumns_;
    std::optional<Row> button_;
    std::span<const int> buttonColumns_;
};

}  // namespace notificationdb
