// A Qt host of the NotificationDatabase library. Its event loop runs the library's main-queue
// jobs (EventLoopScheduler), and a DatabaseUpdateNotifier signals every change notice, so the
// host only saves, lists and re-reads: it saves a notification, lists the store on each notice,
// its own and that of a second copy of itself that saves to the same file from another process,
// and ends after both.
//
//   qt_host               the host
//   qt_host --write FILE  the other process: saves one notification to FILE and sends its notice

#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/Qt/DatabaseUpdateNotifier.hpp>
#include <NotificationDatabase/Qt/EventLoopScheduler.hpp>
#include <NotificationDatabase/VersionMacros.hpp>

#include <QCoreApplication>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <chrono>
#include <iostream>
#include <string>
#include <string_view>

using namespace notificationdb;

namespace {

// Each process saves for a customer of its own: a notification whose customer, kind, version and
// app match a stored one is not stored again.
NotificationModelInfo makeNotification(std::string customer, std::string title) {
    return NotificationModelInfo(NotificationModel(
        std::nullopt, std::move(customer), std::chrono::system_clock::now(), "1.0", "example", std::move(title),
        std::nullopt, std::nullopt, false, std::nullopt, NotificationStatus::new_, NotificationKind::newApp));
}

// A file of the example's own, so that it never touches the user's notifications; a host
// uses NotificationDatabaseConfig::default_().
NotificationDatabaseConfig privateFile(const QString& path) {
    return NotificationDatabaseConfig(path.toStdString(), {false, BusyMode::timeout(2.0), false});
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (argc == 3 && std::string_view(argv[1]) == "--write") {
        NotificationDatabaseImpl::create(privateFile(argv[2]))
            ->save(makeNotification("customer-2", "Written by another process"));
        NotificationDatabaseImpl::postPendingNotices();  // now, rather than 1.0 s after this process has gone
        return 0;
    }

    std::cout << "NotificationDatabase " << NOTIFICATIONDB_VERSION_STRING << " in a Qt event loop\n";
    EventLoopScheduler::install();  // before the first write, so that every notice runs on this loop
    const QTemporaryDir directory;
    const QString file = directory.filePath("NotificationDatabase.sqlite");
    const auto store = NotificationDatabaseImpl::create(privateFile(file));  // throws DatabaseError
    const DatabaseUpdateNotifier notifier;
    if (!notifier.isObserving()) return 1;  // no session bus (logged)

    QProcess other;
    int heard = 0;
    QObject::connect(&notifier, &DatabaseUpdateNotifier::updated, [&] {
        std::cout << "notice " << ++heard << "; stored now:\n";
        for (const NotificationModelInfo& info : store->fetchNotifications(std::nullopt)) {
            std::cout << "  #" << *info.notification.id() << ' ' << info.notification.title.value_or("") << '\n';
        }
        if (heard == 1) other.start(QCoreApplication::applicationFilePath(), {"--write", file});
        if (heard == 2) app.exit(store->notificationsCount() == 2 ? 0 : 1);
    });
    QTimer::singleShot(std::chrono::seconds(15), &app, [&app] {
        std::cout << "not both notices within 15 seconds\n";
        app.exit(1);
    });

    store->save(makeNotification("customer-1", "Written by this process"));
    const int status = app.exec();
    other.waitForFinished();
    return status != 0 || other.exitCode() != 0;
}
