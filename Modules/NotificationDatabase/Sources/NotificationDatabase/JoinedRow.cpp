#include "NotificationDatabase/JoinedRow.hpp"

#include "NotificationDatabase/RecordCoding/RowCoding.hpp"

namespace notificationdb {

JoinedRow::JoinedRow(Connection& connection, const Row& row)
    : notification_(row.part(row.begin(), connection.columnCount(R"(SELECT "notification".* FROM "notification")"))),
      button_(row.part(notification_.end(), row.end())),
      notificationColumns_(columnsOf<NotificationModel>(notification_)),
      buttonColumns_(columnsOf<NotificationButton>(button_)) {
    auto notNull = connection.cachedStatement(
        R"(SELECT "name" FROM pragma_table_info('notificationButton') WHERE "notnull" LIMIT 1)");
    if (notNull->step()) presence_ = button_.index(notNull->row().text(0), -1);
}

void JoinedRow::read(NotificationModelInfo& info) const {
    readRecord(notification_, notificationColumns_, info.notification);
    // A stored button never holds NULL in a NOT NULL column; without one, every column must be NULL.
    if (presence_ >= 0 ? !button_.isNull(presence_) : !button_.allNull()) {
        readRecord(button_, buttonColumns_, info.actionButton.emplace(RecordCoding<NotificationButton>::blank()));
    }
}

std::vector<NotificationModelInfo> readJoined(Connection& connection, Statement& statement) {
    std::vector<NotificationModelInfo> result;
    result.reserve(statement.previousRowCount());
    if (statement.step()) {
        const auto& row =
            statement.layout<JoinedRow>([&connection](const Row& first) { return JoinedRow(connection, first); });
        // Each pair is read in place in the list; a row that cannot be read fails the whole run.
        do {
            row.read(result.emplace_back(RecordCoding<NotificationModel>::blank()));
        } while (statement.step());
    }
    // A much shorter run gives back the room the longer one needed.
    if (result.size() < result.capacity() / 2) result.shrink_to_fit();
    return result;
}

}  // namespace notificationdb
