// A GLib host of the NotificationDatabase library. Its GMainLoop runs the library's main-queue
// jobs (MainContextScheduler), so the change notices go out and come in on the loop with no
// other driving. It hears the notice of its own write, then starts a second copy of itself that
// writes to the same file from another process, and hears that process's notice too.
//
//   glib_host               the host
//   glib_host --write FILE  the other process: saves one notification to FILE and stays until
//                           its notice has gone out

#include <NotificationDatabase/Extensions/NotificationName.hpp>
#include <NotificationDatabase/GLib/MainContextScheduler.hpp>
#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/Platform/DistributedNotificationCenter.hpp>
#include <NotificationDatabase/Platform/LogSanitizer.hpp>
#include <NotificationDatabase/VersionMacros.hpp>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

namespace {

using namespace std::chrono_literals;
using namespace notificationdb;

NotificationModelInfo makeNotification(std::string title, NotificationKind kind) {
    return NotificationModelInfo(NotificationModel(std::nullopt, "customer-1", std::chrono::system_clock::now(), "1.0",
                                                   "example", std::move(title), std::nullopt, std::nullopt, false,
                                                   std::nullopt, NotificationStatus::new_, kind));
}

std::shared_ptr<NotificationDatabaseImpl> openStore(const std::filesystem::path& file) {
    Configuration configuration;
    configuration.busyMode = BusyMode::timeout(NotificationDatabaseConfig::busyTimeoutSeconds);
    try {
        return NotificationDatabaseImpl::create(NotificationDatabaseConfig(file, configuration));
    } catch (const std::exception& error) {
        std::cerr << "cannot open " << file << ": " << LogSanitizer::sanitizeError(error) << '\n';
        return nullptr;
    }
}

// The other process: its notice is due 1.0 s after the save; the quit, scheduled after it with
// the same delay, runs after it (the loop runs jobs in deadline order).
int writeFromAnotherProcess(const std::filesystem::path& file) {
    MainContextScheduler::install();
    auto store = openStore(file);
    if (!store) return 1;
    store->save(makeNotification("Written by another process", NotificationKind::appUpdate));
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    MainQueue::main().asyncAfter(1s, [loop] { g_main_loop_quit(loop); });
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    return 0;
}

struct Host {
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    std::filesystem::path file;
    std::shared_ptr<NotificationDatabaseImpl> store;
    int heard = 0;
    bool otherProcessEnded = false;
    bool succeeded = false;

    void finish(bool success, std::string_view message) {
        std::cout << message << '\n';
        succeeded = success;
        g_main_loop_quit(loop);
    }

    // Runs on the loop, once per notice heard from any process.
    void onNotice() {
        ++heard;
        if (heard == 1) {
            std::cout << "heard " << databaseUpdated() << " after this process's write\n";
            startOtherProcess();
        } else if (heard == 2) {
            std::cout << "heard " << databaseUpdated() << " after the other process's write\n";
            finishWhenDone();
        }
    }

    // Done once the second notice is heard and the other process has ended (so that the bus
    // outlives its last message).
    void finishWhenDone() {
        if (heard < 2 || !otherProcessEnded) return;
        const auto count = store->notificationsCount();
        finish(count == 2, count == 2 ? "both notices heard; 2 notifications stored"
                                      : "expected 2 stored notifications, found " + std::to_string(count));
    }

    void startOtherProcess() {
        std::string fileText = file.string();
        const char* argv[] = {"/proc/self/exe", "--write", fileText.c_str(), nullptr};
        GPid pid = 0;
        GError* error = nullptr;
        if (!g_spawn_async(nullptr, const_cast<char**>(argv), nullptr, G_SPAWN_DO_NOT_REAP_CHILD, nullptr, nullptr,
                           &pid, &error)) {
            finish(false, std::string("cannot start the other process: ") + error->message);
            g_error_free(error);
            return;
        }
        g_child_watch_add(
            pid,
            [](GPid child, gint status, gpointer data) {
                g_spawn_close_pid(child);
                auto* host = static_cast<Host*>(data);
                host->otherProcessEnded = true;
                if (!g_spawn_check_wait_status(status, nullptr)) {
                    host->finish(false, "the other process failed");
                } else {
                    host->finishWhenDone();
                }
            },
            this);
    }
};

// Removes the example's directory whatever way main() ends.
struct DirectoryRemover {
    std::filesystem::path path;
    ~DirectoryRemover() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string_view(argv[1]) == "--write") return writeFromAnotherProcess(argv[2]);

    std::cout << "NotificationDatabase " << NOTIFICATIONDB_VERSION_STRING << " in a GLib main loop\n";
    // Before the first write, so that every notice runs on this loop.
    MainContextScheduler::install();

    std::string pattern = (std::filesystem::temp_directory_path() / "notificationdb-glib.XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        std::cerr << "cannot create a temporary directory\n";
        return 1;
    }
    DirectoryRemover remover{pattern};

    Host host;
    host.file = remover.path / "NotificationDatabase.sqlite";
    host.store = openStore(host.file);
    if (!host.store) return 1;

    auto observation = DistributedNotificationCenter::defaultCenter()->addObserver(
        databaseUpdated(), [&host](const std::string&) { host.onNotice(); });
    if (!observation) {
        std::cerr << "no session bus: the change notices cannot be heard\n";
        return 1;
    }
    g_timeout_add_seconds(
        15,
        [](gpointer data) {
            static_cast<Host*>(data)->finish(false, "not both notices within 15 seconds");
            return G_SOURCE_REMOVE;
        },
        &host);

    host.store->save(makeNotification("Written by this process", NotificationKind::newApp));
    std::cout << "saved a notification in " << host.file.string() << '\n';
    g_main_loop_run(host.loop);

    observation.reset();
    g_main_loop_unref(host.loop);
    return host.succeeded ? 0 : 1;
}
