#pragma once

// The joined read of notifications with their buttons.

#include <NotificationDatabase/Database/Statement.hpp>
#include <NotificationDatabase/NotificationModel/NotificationModelInfo.hpp>

#include <array>
#include <optional>
#include <string_view>
#include <vector>

namespace notificationdb {

// "notification" LEFT JOIN "notificationButton" through the button's foreign key. Between the two
// tables' columns stands a column named after the button table: the button's part of each row
// begins after it.
constexpr std::string_view joinedSelect =
    R"(SELECT "notification".*, NULL AS "notificationButton", "notificationButton".* FROM "notification" )"
    R"(LEFT JOIN "notificationButton" ON "notificationButton"."notificationId" = "notification"."id")";

// The rows of one run of a joined read: where the two parts and their fields' columns stand is
// looked up on the run's first row and serves every row of the run.
class JoinedRow {
public:
    explicit JoinedRow(const Row& row);

    // Reads the pair of the statement's current row into `info`, whose fields start out absent or
    // empty: the notification from the first part, the button from the second, absent when all of
    // its columns are NULL (the join found no button). Throws `RecordDecodingError` when either
    // record cannot be read.
    void read(NotificationModelInfo& info) const;

private:
    Row notification_;
    std::optional<Row> button_;
    std::array<int, fieldCount<NotificationModel>> notificationColumns_;
    std::array<int, fieldCount<NotificationButton>> buttonColumns_{};
};

// Every row of a run of a joined read, in order. The list starts with the room that the
// statement's previous run needed.
std::vector<NotificationModelInfo> readJoined(Statement& statement);

}  // namespace notificationdb
