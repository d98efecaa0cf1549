#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/Qt/DatabaseUpdateNotifier.hpp>
#include <NotificationDatabase/Qt/EventLoopScheduler.hpp>

#include <gtest/gtest.h>
#include <QCoreApplication>
#include <QEventLoop>
#include <QTemporaryDir>
#include <QTimer>

#include <string>
#include <thread>
#include <vector>

using namespace notificationdb;
using namespace std::chrono_literals;

// On a bus of its own (dbus-run-session): the only notice is its save's.
TEST(Qt, SchedulerRunsJobsInDeadlineOrderAndTheNotifierHearsASave) {
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

    // The notice of a save on another thread is heard on the loop's thread (another process's
    // notices travel the same session bus: see the tool's `watch` row).
    const QTemporaryDir directory;
    const DatabaseUpdateNotifier notifier;
    ASSERT_TRUE(notifier.isObserving()) << "no session bus";
    std::vector<std::thread::id> heardOn;
    QObject::connect(&notifier, &DatabaseUpdateNotifier::updated, &loop, [&] {
        heardOn.push_back(std::this_thread::get_id());
        loop.quit();
    });
    std::thread([&] {
        const NotificationModel notification(std::nullopt, "c", Timestamp{}, "1.0", "tag", "title", {}, {}, false, {},
                                             NotificationStatus::new_, NotificationKind::newApp);
        NotificationDatabaseImpl::create(NotificationDatabaseConfig(directory.filePath("n.sqlite").toStdString(), {}))
            ->save(NotificationModelInfo(notification));
    }).join();
    if (!late) loop.exec();
    EXPECT_EQ(heardOn, std::vector<std::thread::id>{onLoop}) << "no notice, or not on the loop";
}

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
