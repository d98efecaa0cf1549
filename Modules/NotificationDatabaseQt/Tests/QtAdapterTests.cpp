#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/Qt/DatabaseUpdateNotifier.hpp>
#include <NotificationDatabase/Qt/EventLoopScheduler.hpp>

#include <gtest/gtest.h>
#include <QCoreApplication>
#include <QEventLoop>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <string>
#include <thread>
#include <vector>

using namespace notificationdb;
using namespace std::chrono_literals;

static void saveOne(const std::string& file, const std::string& customer) {
    const NotificationModel notification(std::nullopt, customer, Timestamp{}, "1.0", "tag", "title", {}, {}, false, {},
                                         NotificationStatus::new_, NotificationKind::newApp);
    NotificationDatabaseImpl::create(NotificationDatabaseConfig(file, {}))->save(NotificationModelInfo(notification));
}

// On a bus of its own (dbus-run-session): the only notices are its save's and its child's (`--save`).
TEST(Qt, SchedulerRunsJobsInDeadlineOrderAndTheNotifierHearsEveryProcess) {
    EventLoopScheduler::install();
    // Deadlines out of order, from two threads, two equal; all due when the loop runs, timers firing together.
    const auto onLoop = std::this_thread::get_id();
    std::vector<std::string> ran;
    auto job = [&](std::string name) {
        return [&, name] { ran.push_back(std::this_thread::get_id() == onLoop ? name : name + " off the loop"); };
    };
    MainQueue::main().asyncAfter(30ms, job("fourth"));
    std::thread([&] { MainQueue::main().asyncAfter(20ms, job("second")); }).join();
    MainQueue::main().asyncAfter(10ms, job("first"));
    MainQueue::main().asyncAfter(20ms, job("third"));
    std::this_thread::sleep_for(50ms);
    QEventLoop loop;
    bool late = false;  // a job or notice that never comes fails the test instead of hanging it
    QTimer::singleShot(30s, &loop, [&] { late = true, loop.quit(); });
    while (ran.size() < 4 && !late) loop.processEvents(QEventLoop::WaitForMoreEvents);
    EXPECT_EQ(ran, (std::vector<std::string>{"first", "second", "third", "fourth"}));

    // A save on another thread, then one by another process: both heard on the loop's thread.
    const QTemporaryDir directory;
    const QString file = directory.filePath("notifications.sqlite");
    const DatabaseUpdateNotifier notifier;
    ASSERT_TRUE(notifier.isObserving()) << "no session bus";
    std::vector<std::thread::id> heardOn;
    QProcess other;
    QObject::connect(&notifier, &DatabaseUpdateNotifier::updated, &loop, [&] {
        heardOn.push_back(std::this_thread::get_id());
        if (heardOn.size() == 1) other.start(QCoreApplication::applicationFilePath(), {"--save", file});
        if (heardOn.size() == 2) loop.quit();
    });
    std::thread(saveOne, file.toStdString(), "this process").join();
    if (!late) loop.exec();
    other.waitForFinished();  // its notice came; let it end before the bus does
    EXPECT_EQ(heardOn, (std::vector<std::thread::id>{onLoop, onLoop})) << "not both notices, or not on the loop";
}

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--save") {
        saveOne(argv[2], "another process");
        NotificationDatabaseImpl::postPendingNotices();
        return 0;
    }
    QCoreApplication application(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
