#include <NotificationDatabase/DatabaseUpdateObserver.hpp>
#include <NotificationDatabase/GLib/MainContextScheduler.hpp>
#include <NotificationDatabase/NotificationDatabase.hpp>

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using namespace notificationdb;
using namespace std::chrono_literals;

// On a bus of its own (dbus-run-session): the only notice is its save's.
TEST(MainContextScheduler, RunsJobsInDeadlineOrderOnTheLoopAndDeliversTheNoticeOfASave) {
    GMainContext* context = g_main_context_new();
    GMainLoop* loop = g_main_loop_new(context, FALSE);
    const MainContextScheduler scheduler(context);
    MainQueue::main().setScheduler(scheduler);
    // A job or notice that never comes fails the test instead of hanging it.
    GSource* guard = g_timeout_source_new_seconds(30);
    g_source_set_callback(guard, [](gpointer l) { return g_main_loop_quit(static_cast<GMainLoop*>(l)), 0; }, loop, {});
    g_source_attach(guard, context);

    // Deadlines out of order, from two threads, two equal; all due when the loop runs, sources ready together.
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
    while (ran.size() < 4 && !g_source_is_destroyed(guard)) g_main_context_iteration(context, TRUE);
    EXPECT_EQ(ran, (std::vector<std::string>{"first", "second", "third", "fourth"}));

    // The notice of a save on another thread reaches an observer on the loop's thread.
    const auto directory = std::filesystem::temp_directory_path() / ("ndb-glib-" + std::to_string(::getpid()));
    std::vector<std::thread::id> heardOn;
    std::optional<DatabaseUpdateObserver> updates(std::in_place, [&] {
        heardOn.push_back(std::this_thread::get_id());
        g_main_loop_quit(loop);
    });
    ASSERT_TRUE(updates->isObserving()) << "no session bus";
    std::thread([&] {
        const NotificationModel notification(std::nullopt, "c", Timestamp{}, "1.0", "tag", "title", {}, {}, false, {},
                                             NotificationStatus::new_, NotificationKind::newApp);
        NotificationDatabaseImpl::create(NotificationDatabaseConfig(directory / "n.sqlite", {}))
            ->save(NotificationModelInfo(notification));
    }).join();
    if (!g_source_is_destroyed(guard)) g_main_loop_run(loop);
    EXPECT_EQ(heardOn, std::vector<std::thread::id>{onLoop}) << "no notice, or not on the loop";

    updates.reset();
    MainQueue::main().setScheduler({});
    g_source_destroy(guard);
    g_source_unref(guard);
    g_main_loop_unref(loop);
    g_main_context_unref(context);
    std::filesystem::remove_all(directory);
}
