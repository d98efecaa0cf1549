#include "NotificationDatabase/Qt/DatabaseUpdateNotifier.hpp"

namespace notificationdb {

DatabaseUpdateNotifier::DatabaseUpdateNotifier(QObject* parent)
    : QObject(parent), observer_([this] { Q_EMIT updated(); }) {}

}  // namespace notificationdb
