#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/Qt/DatabaseUpdateNotifier.hpp>
#include <NotificationDatabase/Qt/EventLoopScheduler.hpp>

#include <gtest/gtest.h>
#include <unistd.h>
#include <QCoreApplication>
#include <QEventLoop>
#include <QProcess>
#include <QTimer>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

using namespace notificationdb;
using namespace std::chrono_literals;

namespace {

void saveOne(const std::filesystem::path& file, const std::string& customer) {
    NotificationDatabaseImpl::create(NotificationDatabaseConfig(file, {}))
        ->save(NotificationModelInfo(NotificationModel(std::nullopt, customer, std::chrono::system_clock::now(), "1.0",
                                                       "tag", "title", std::nullopt, std::nullopt, false, std::nullopt,
                                                       NotificationStatus::new_, NotificationKind::newApp)));
}

}  // namespace

// Runs on a bus of its own (CTest starts it under dbus-run-session), where the only notices are
// those of its own save and of the process it starts.
TEST(Qt, SchedulerRunsJobsInDeadlineOrderAndTheNotifierHearsEveryProcess) {
    EventLoopScheduler::install();
    // Deadlines out of order, from this thread and another, two of them equal; all due by the
    // time the loop runs, so that their timers fire together.
    const auto base = MainQueue::Clock::now();
    const auto onLoop = std::this_thread::get_id();
    std::vector<std::string> ran;
    auto job = [&](std::string name) {
        return [&, name] { ran.push_back(std::this_thread::get_id() == onLoop ? name : name + " off the loop"); };
    };
    MainQueue::main().asyncAfter(30ms, job("fourth"));
    std::thread([&] { MainQueue::main().asyncAfter(20ms, job("second")); }).join();
    MainQueue::main().asyncAfter(10ms, job("first"));
    MainQueue::main().asyncAfter(20ms, job("third"));
    std::this_thread::sleep_until(base + 50ms);
    QEventLoop loop;
    bool late = false;  // a job or notice that never comes fails the test instead of hanging it
    QTimer::singleShot(30s, &loop, [&] { late = true, loop.quit(); });
    while (ran.size() < 4 && !late) loop.processEvents(QEventLoop::WaitForMoreEvents);
    EXPECT_EQ(ran, (std::vector<std::string>{"first", "second", "third", "fourth"}));

    // A save on another thread, then one by another process: both heard on the loop's thread.
    const auto directory = std::filesystem::temp_directory_path() / ("ndb-qt-" + std::to_string(::getpid()));
    std::filesystem::create_directories(directory);
    const auto file = directory / "notifications.sqlite";
    const DatabaseUpdateNotifier notifier;
    ASSERT_TRUE(notifier.isObserving()) << "no session bus";
    std::vector<std::thread::id> heardOn;
    QProcess other;
    QObject::connect(&notifier, &DatabaseUpdateNotifier::updated, &loop, [&] {
        heardOn.push_back(std::this_thread::get_id());
        if (heardOn.size() == 1) other.start(QCoreApplication::applicationFilePath(), {"--save", file.c_str()});
        if (heardOn.size() == 2) loop.quit();
    });
    std::thread(saveOne, file, "this process").join();
    if (!late) loop.exec();
    EXPECT_TRUE(other.waitForFinished() && other.exitCode() == 0) << other.readAllStandardError().toStdString();
    EXPECT_EQ(heardOn, (std::vector<std::thread::id>{onLoop, onLoop})) << "not both notices, or not on the loop";
    EXPECT_EQ(MainQueue::main().pendingCount(), 0u) << "a job went to the built-in queue";
    MainQueue::main().setScheduler({});
    std::filesystem::remove_all(directory);
}

// `--save FILE`: the other process, which saves one notification and posts its notice at once.
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
