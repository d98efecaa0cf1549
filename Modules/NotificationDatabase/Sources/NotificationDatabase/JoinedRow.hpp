#pragma once

// The joined read of notifications with their buttons.

#include <NotificationDatabase/Database/Connection.hpp>
#include <NotificationDatabase/Database/Statement.hpp>
#include <NotificationDatabase/NotificationModel/NotificationModelInfo.hpp>

#include <array>
#include <optional>
#include <string_view>
#include <vector>

namespace notificationdb {

// "notification" LEFT JOIN "notificationButton" through the button's foreign key: first the
// notification's columns, then the button's.
constexpr std::string_view joinedSelect =
    R"(SELECT "notification".*, "notificationButton".* FROM "notification" )"
    R"(LEFT JOIN "notificationButton" ON "notificationButton"."notificationId" = "notification"."id")";

// Where the two parts of the rows of a joined read and their fields' columns stand, looked up by
// name on one row; the same for every row of the statement's preparation.
class JoinedRow {
public:
    // Reads the layout from the connection's schema: how many columns "notification".* stands for
    // (the first part), and a column of "notificationButton" declared NOT NULL, which alone tells
    // whether the join found a button.
    JoinedRow(Connection& connection, const Row& row);

    // Reads the pair of the statement's current row into `info`, whose fields start out absent or
    // empty: the notification from the first part, the button from the second, absent when all of
    // its columns are NULL (the join found no button). Throws `RecordDecodingError` when either
    // record cannot be read.
    void read(NotificationModelInfo& info) const;

private:
    Row notification_;
    Row button_;
    int presence_ = -1;  // a column of the button part that is NULL only when the join found none, or -1
    std::array<int, fieldCount<NotificationModel>> notificationColumns_{};
    std::array<int, fieldCount<NotificationButton>> buttonColumns_{};
};

// Every row of a run of a joined read on `connection`, in order. The list starts with the room
// that the statement's previous run needed.
std::vector<NotificationModelInfo> readJoined(Connection& connection, Statement& statement);

}  // namespace notificationdb
