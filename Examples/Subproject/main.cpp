// Opens a new store through the host's shared module and prints the library's version.

#include <NotificationDatabase/VersionMacros.hpp>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>

long long hostNotificationCount(const std::string& file);

int main() {
    std::string directory = (std::filesystem::temp_directory_path() / "notificationdb-subproject.XXXXXX").string();
    if (::mkdtemp(directory.data()) == nullptr) return 1;
    const long long count = hostNotificationCount(directory + "/NotificationDatabase.sqlite");
    std::filesystem::remove_all(directory);
    std::cout << "NotificationDatabase " << NOTIFICATIONDB_VERSION_STRING << " (ABI " << NOTIFICATIONDB_ABI_VERSION
              << ") embedded: a new store holds " << count << " notifications\n";
    return count == 0 ? 0 : 1;
}
