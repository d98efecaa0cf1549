// A GLib host of the NotificationDatabase library. Its main loop runs the library's main-queue
// jobs (MainContextScheduler), and a DatabaseUpdateObserver hears every change notice, so the
// host only saves, lists and re-reads: it saves a notification, lists the store on each notice,
// its own and that of a second copy of itself that saves to the same file from another process,
// and ends after both.
//
//   glib_host               the host
//   glib_host --write FILE  the other process: saves one notification to FILE and sends its notice

#include <NotificationDatabase/DatabaseUpdateObserver.hpp>
#include <NotificationDatabase/GLib/MainContextScheduler.hpp>
#include <NotificationDatabase/NotificationDatabase.hpp>
#include <NotificationDatabase/VersionMacros.hpp>

#include <sys/wait.h>

#include <chrono>
#include <filesystem>
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
        std::nullopt, std::nullopt, false, std::nullopt, NotificationStatus::new_, NotificationKind::appUpdate));
}

// A file of the example's own, so that it never touches the user's notifications; a host
// uses NotificationDatabaseConfig::default_().
NotificationDatabaseConfig privateFile(const std::filesystem::path& path) {
    return NotificationDatabaseConfig(path, {false, BusyMode::timeout(2.0), false});
}

// Removes the example's directory whatever way main() ends.
struct DirectoryRemover {
    std::filesystem::path path;
    ~DirectoryRemover() { std::filesystem::remove_all(path); }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string_view(argv[1]) == "--write") {
        NotificationDatabaseImpl::create(privateFile(argv[2]))
            ->save(makeNotification("customer-2", "Written by another process"));
        NotificationDatabaseImpl::postPendingNotices();  // now, rather than 1.0 s after this process has gone
        return 0;
    }

    std::cout << "NotificationDatabase " << NOTIFICATIONDB_VERSION_STRING << " in a GLib main loop\n";
    MainContextScheduler::install();  // before the first write, so that every notice runs on this loop
    gchar* directory = g_dir_make_tmp("notificationdb-glib-XXXXXX", nullptr);
    const DirectoryRemover remover{directory};
    g_free(directory);
    const std::string file = remover.path / "NotificationDatabase.sqlite";
    const auto store = NotificationDatabaseImpl::create(privateFile(file));  // throws DatabaseError
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);

    GPid other = 0;
    int heard = 0;
    int status = 1;
    const DatabaseUpdateObserver updates([&] {
        std::cout << "notice " << ++heard << "; stored now:\n";
        for (const NotificationModelInfo& info : store->fetchNotifications(std::nullopt)) {
            std::cout << "  #" << *info.notification.id() << ' ' << info.notification.title.value_or("") << '\n';
        }
        const char* otherArguments[] = {"/proc/self/exe", "--write", file.c_str(), nullptr};
        if (heard == 1 && !g_spawn_async(nullptr, const_cast<char**>(otherArguments), nullptr,
                                         G_SPAWN_DO_NOT_REAP_CHILD, nullptr, nullptr, &other, nullptr)) {
            g_main_loop_quit(loop);
        }
        if (heard == 2) {
            status = store->notificationsCount() == 2 ? 0 : 1;
            g_main_loop_quit(loop);
        }
    });
    if (!updates.isObserving()) return 1;  // no session bus (logged)
    g_timeout_add_seconds(
        15,
        [](gpointer data) {
            std::cout << "not both notices within 15 seconds\n";
            g_main_loop_quit(static_cast<GMainLoop*>(data));
            return G_SOURCE_REMOVE;
        },
        loop);

    store->save(makeNotification("customer-1", "Written by this process"));
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    int otherStatus = 0;
    if (other != 0 &&
        (::waitpid(other, &otherStatus, 0) != other || !WIFEXITED(otherStatus) || WEXITSTATUS(otherStatus) != 0)) {
        return 1;
    }
    return status;
}
