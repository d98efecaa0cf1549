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

// Runs on a bus of its own (CTest starts it under dbus-run-session), where the only notice is
// the one of its save.
TEST(MainContextScheduler, RunsJobsInDeadlineOrderOnTheLoopAndDeliversTheNoticeOfASave) {
    GMainContext* context = g_main_context_new();
    GMainLoop* loop = g_main_loop_new(context, FALSE);
    const MainContextScheduler scheduler(context);
    MainQueue::main().setScheduler(scheduler);
    // Ends a run whose notice never comes, so that the test fails instead of hanging.
    GSource* guard = g_timeout_source_new_seconds(30);
    const GSourceFunc quit = [](gpointer data) { return g_main_loop_quit(static_cast<GMainLoop*>(data)), 0; };
    g_source_set_callback(guard, quit, loop, nullptr);
    g_source_attach(guard, context);

    // Deadlines out of order, from this thread and another, two of them equal; all due by the
    // time the loop runs, so that GLib finds their sources ready together.
    const auto base = MainQueue::Clock::now();
    const auto onLoop = std::this_thread::get_id();
    std::vector<std::string> ran;
    auto job = [&](std::string name) {
        return [&, name] { ran.push_back(std::this_thread::get_id() == onLoop ? name : name + " off the loop"); };
    };
    scheduler(base + 30ms, job("fourth"));
    std::thread([&] { scheduler(base + 20ms, job("second")); }).join();
    scheduler(base + 10ms, job("first"));
    scheduler(base + 20ms, job("third"));
    std::this_thread::sleep_until(base + 50ms);
    while (ran.size() < 4 && !g_source_is_destroyed(guard)) g_main_context_iteration(context, TRUE);
    EXPECT_EQ(ran, (std::vector<std::string>{"first", "second", "third", "fourth"}));

    // The notice of a save made on another thread reaches an observer on the loop's thread.
    const auto directory = std::filesystem::temp_directory_path() / ("ndb-glib-" + std::to_string(::getpid()));
    std::filesystem::create_directories(directory);
    auto store = NotificationDatabaseImpl::create(NotificationDatabaseConfig(directory / "notifications.sqlite", {}));
    std::vector<std::thread::id> heardOn;
    std::optional<DatabaseUpdateObserver> updates(std::in_place, [&] {
        heardOn.push_back(std::this_thread::get_id());
        g_main_loop_quit(loop);
    });
    ASSERT_TRUE(updates->isObserving()) << "no session bus";
    std::thread([&] {
        store->save(NotificationModelInfo(NotificationModel(
            std::nullopt, "customer", std::chrono::system_clock::now(), "1.0", "tag", "title", std::nullopt,
            std::nullopt, false, std::nullopt, NotificationStatus::new_, NotificationKind::newApp)));
    }).join();
    g_main_loop_run(loop);
    EXPECT_EQ(heardOn, std::vector<std::thread::id>{onLoop}) << "no notice, or not on the loop";
    EXPECT_EQ(MainQueue::main().pendingCount(), 0u) << "a job went to the built-in queue";

    updates.reset();
    store.reset();
    MainQueue::main().setScheduler({});
    g_source_destroy(guard);
    g_source_unref(guard);
    g_main_loop_unref(loop);
    g_main_context_unref(context);
    std::filesystem::remove_all(directory);
}
