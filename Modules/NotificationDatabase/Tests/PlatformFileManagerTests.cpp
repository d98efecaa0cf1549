#include <NotificationDatabase/Platform/FileManager.hpp>

#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>

#include <pwd.h>
#include <unistd.h>

namespace notificationdb {
namespace {

namespace fs = std::filesystem;
using testing::ScopedEnvironment;
using testing::TemporaryDirectory;

void writeFile(const fs::path& path) {
    std::ofstream(path) << "not a directory";
}

// Success of a createDirectory call, with the failure's text when it failed.
::testing::AssertionResult succeeded(std::error_code error) {
    if (!error) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << error.message();
}

#ifndef __APPLE__
TEST(PlatformFileManager, ApplicationSupportDirectoryFollowsXdgDataHomeThenHome) {
    TemporaryDirectory home;
    SystemFileManager manager;
    ScopedEnvironment homeVariable("HOME", home.path().string());

    {
        ScopedEnvironment dataHome("XDG_DATA_HOME", (home / "xdg-data").string());
        EXPECT_EQ(manager.applicationSupportDirectory(), home / "xdg-data");
    }
    {
        ScopedEnvironment unset("XDG_DATA_HOME", std::nullopt);
        EXPECT_EQ(manager.applicationSupportDirectory(), home.path() / ".local" / "share");
    }
    {
        ScopedEnvironment empty("XDG_DATA_HOME", std::string());
        EXPECT_EQ(manager.applicationSupportDirectory(), home.path() / ".local" / "share");
    }
    {
        // A relative value is invalid and must not make the database land in the working
        // directory.
        ScopedEnvironment relative("XDG_DATA_HOME", "relative/data");
        EXPECT_EQ(manager.applicationSupportDirectory(), home.path() / ".local" / "share");
    }
    // The directory is only named, not created.
    EXPECT_FALSE(fs::exists(home.path() / ".local"));
}

TEST(PlatformFileManager, ApplicationSupportDirectoryWithoutHomeUsesThePasswordDatabase) {
    const passwd* entry = ::getpwuid(::geteuid());
    if (entry == nullptr || entry->pw_dir == nullptr) {
        GTEST_SKIP() << "the current user has no password database entry";
    }
    std::string expectedHome = entry->pw_dir;
    ScopedEnvironment noHome("HOME", std::nullopt);
    ScopedEnvironment noDataHome("XDG_DATA_HOME", std::nullopt);
    EXPECT_EQ(SystemFileManager().applicationSupportDirectory(), fs::path(expectedHome) / ".local" / "share");
}
#endif

// Creating the database folder chain the way the configuration does: a fresh chain, a second
// run over the existing chain, and the single-level form.
TEST(PlatformFileManager, CreatesDirectoriesWithAndWithoutIntermediates) {
    TemporaryDirectory root;
    SystemFileManager manager;
    auto chain = root / "Vantro" / "Default" / "Databases";

    EXPECT_FALSE(manager.fileExists(chain));
    EXPECT_TRUE(succeeded(manager.createDirectory(chain, true)));
    EXPECT_TRUE(fs::is_directory(chain));
    EXPECT_TRUE(manager.fileExists(chain));
    EXPECT_TRUE(succeeded(manager.createDirectory(chain, true))) << "an existing directory is success";

    // Without intermediates a missing parent and an existing directory are both failures.
    auto orphan = root / "missing" / "child";
    EXPECT_FALSE(succeeded(manager.createDirectory(orphan, false)));
    EXPECT_FALSE(fs::exists(orphan.parent_path()));
    EXPECT_FALSE(succeeded(manager.createDirectory(chain, false)));

    auto single = root / "single";
    EXPECT_TRUE(succeeded(manager.createDirectory(single, false)));
    EXPECT_TRUE(fs::is_directory(single));
}

// A plain file where a directory belongs must be reported, whether it is the last component or
// one in the middle, and must be left alone.
TEST(PlatformFileManager, PlainFileInTheWayIsAnError) {
    TemporaryDirectory root;
    SystemFileManager manager;
    fs::create_directories(root / "Vantro" / "Default");
    auto blocker = root / "Vantro" / "Default" / "Databases";
    writeFile(blocker);

    for (bool intermediates : {true, false}) {
        EXPECT_FALSE(succeeded(manager.createDirectory(blocker, intermediates)))
            << "with intermediates: " << intermediates;
        EXPECT_TRUE(fs::is_regular_file(blocker));
    }

    EXPECT_FALSE(succeeded(manager.createDirectory(blocker / "Deeper", true)));
    EXPECT_TRUE(fs::is_regular_file(blocker));

    if (::geteuid() != 0) {
        auto locked = root / "locked";
        fs::create_directory(locked);
        fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
        EXPECT_FALSE(succeeded(manager.createDirectory(locked / "a" / "b", true)));
        fs::permissions(locked, fs::perms::owner_all);
    }
}

TEST(PlatformFileManager, FileExistsForAnythingAtThePathAndNeverThrows) {
    TemporaryDirectory root;
    SystemFileManager manager;
    writeFile(root / "file");
    fs::create_directory(root / "directory");
    fs::create_symlink(root / "nowhere", root / "dangling");

    EXPECT_TRUE(manager.fileExists(root / "file"));
    EXPECT_TRUE(manager.fileExists(root / "directory"));
    EXPECT_TRUE(manager.fileExists(root / "dangling"));
    EXPECT_FALSE(manager.fileExists(root / "nowhere"));
    EXPECT_FALSE(manager.fileExists(root / "file" / "below-a-file"));
    EXPECT_FALSE(manager.fileExists(""));
}

class RecordingFileManager final : public FileManager {
public:
    fs::path applicationSupportDirectory() const override { return "/recorded"; }
    bool fileExists(const fs::path& /*path*/) const override { return true; }
    std::error_code createDirectory(const fs::path& /*path*/, bool /*withIntermediateDirectories*/) const override {
        return {};
    }
};

TEST(PlatformFileManager, DefaultManagerCanBeReplacedAndRestored) {
    auto original = FileManager::defaultManager();
    ASSERT_NE(original, nullptr);
    EXPECT_NE(dynamic_cast<SystemFileManager*>(original.get()), nullptr);
    EXPECT_EQ(original, FileManager::defaultManager());

    auto replacement = std::make_shared<RecordingFileManager>();
    FileManager::setDefaultManager(replacement);
    EXPECT_EQ(FileManager::defaultManager(), replacement);
    EXPECT_EQ(FileManager::defaultManager()->applicationSupportDirectory(), "/recorded");

    FileManager::setDefaultManager(nullptr);
    auto restored = FileManager::defaultManager();
    EXPECT_NE(restored, replacement);
    EXPECT_NE(dynamic_cast<SystemFileManager*>(restored.get()), nullptr);
}

}  // namespace
}  // namespace notificationdb
