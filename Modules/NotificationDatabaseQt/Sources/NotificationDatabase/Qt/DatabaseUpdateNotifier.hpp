#pragma once

#include <NotificationDatabase/DatabaseUpdateObserver.hpp>
#include <NotificationDatabase/Export.hpp>

#include <QObject>

namespace notificationdb {

// Emits `updated()` for every `databaseUpdated()` notice of any process of the user, this one's
// own included, for as long as it lives:
//
//   EventLoopScheduler::install();
//   DatabaseUpdateNotifier notifier;
//   QObject::connect(&notifier, &DatabaseUpdateNotifier::updated, &model, &Model::reload);
//
// The signal is emitted on the thread that runs the main queue's jobs, the thread of the
// installed `EventLoopScheduler`; receivers on other threads get it queued, as usual. The notice
// carries no data: a receiver asks its store for what it shows.
class NOTIFICATIONDB_API DatabaseUpdateNotifier : public QObject {
    Q_OBJECT

public:
    // Starts hearing the notice. Without a session bus nothing throws: the failure is logged once
    // and `isObserving()` is false.
    explicit DatabaseUpdateNotifier(QObject* parent = nullptr);

    // Whether notices are being heard.
    bool isObserving() const noexcept { return observer_.isObserving(); }

Q_SIGNALS:
    // The stored notifications changed in some process of the user.
    void updated();

private:
    DatabaseUpdateObserver observer_;
};

}  // namespace notificationdb
