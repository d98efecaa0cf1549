#include "NotificationDatabase/JoinedRow.hpp"

#include "NotificationDatabase/RecordCoding/RowCoding.hpp"

namespace notificationdb {

namespace {

// The first part of the row, up to the column named after the button table.
Row firstPart(const Row& row) {
    const int marker = row.index(NotificationButton::databaseTableName, -1);
    return row.part(row.begin(), marker < 0 ? row.end() : marker);
}

}  // namespace

JoinedRow::JoinedRow(const Row& row)
    : notification_(firstPart(row)), notificationColumns_(columnsOf<NotificationModel>(notification_)) {
    if (notification_.end() < row.end()) {
        button_ = row.part(notification_.end() + 1, row.end());
        buttonColumns_ = columnsOf<NotificationButton>(*button_);
    }
}

void JoinedRow::read(NotificationModelInfo& info) const {
    readRecord(notification_, notificationColumns_, info.notification);
    if (button_ && !button_->allNull()) {
        readRecord(*button_, buttonColumns_, info.actionButton.emplace(RecordCoding<NotificationButton>::blank()));
    }
}

std::vector<NotificationModelInfo> readJoined(Statement& statement) {
    std::vector<NotificationModelInfo> result;
    result.reserve(statement.previousRowCount());
    if (statement.step()) {
        const JoinedRow row(statement.row());
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
