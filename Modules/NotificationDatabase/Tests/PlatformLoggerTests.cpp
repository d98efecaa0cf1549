#include <NotificationDatabase/Platform/EngineError.hpp>
#include <NotificationDatabase/Platform/LogSanitizer.hpp>
#include <NotificationDatabase/Platform/Logger.hpp>

#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace notificationdb {
namespace {

using Entry = CapturingLogDestination::Entry;

class ThrowingDestination final : public LogDestination {
public:
    void write(std::string_view /*loggerPath*/, LogLevel /*level*/, std::string_view /*message*/) override {
        throw std::runtime_error("destination is broken");
    }
};

// Logs written through a sub-logger of the module logger, as the store and the configuration
// do, reach the host's destinations with the sub-logger's path and the level given.
TEST(PlatformLogger, SubLoggersDeliverThroughTheModuleLogger) {
    testing::LogCapture capture;
    auto root = Logger::module();
    EXPECT_EQ(root, Logger::module());
    EXPECT_EQ(root->name(), "root");
    EXPECT_EQ(root->path(), "root");

    auto inheriting = root->subLogger("notifications-database", {}, true);
    EXPECT_EQ(inheriting->path(), "root.notifications-database");
    inheriting->log(LogLevel::error, "Unable to fetch notifications count: boom");
    inheriting->log(LogLevel::debug, "second");

    auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].loggerPath, "root.notifications-database");
    EXPECT_EQ(entries[0].level, LogLevel::error);
    EXPECT_EQ(entries[0].message, "Unable to fetch notifications count: boom");
    EXPECT_EQ(entries[1].level, LogLevel::debug);

    // Without inheritance and without destinations of its own a logger is silent.
    capture.clear();
    auto isolated = root->subLogger("isolated", {}, false);
    isolated->log(LogLevel::error, "nobody hears this");
    EXPECT_TRUE(capture.entries().empty());

    // Own destinations plus inheritance: both get the message, once each.
    auto own = std::make_shared<CapturingLogDestination>();
    auto both = root->subLogger("both", {own}, true);
    both->log(LogLevel::warning, "twice");
    ASSERT_EQ(own->messages(), std::vector<std::string>{"twice"});
    ASSERT_EQ(capture.messages(), std::vector<std::string>{"twice"});
    EXPECT_EQ(own->entries()[0].loggerPath, "root.both");
    EXPECT_EQ(capture.entries()[0].loggerPath, "root.both");
}

// Inheritance follows the whole chain and stops at the first logger that does not inherit;
// redirecting a logger in the middle redirects everything below it.
TEST(PlatformLogger, InheritanceWalksTheChainAndFollowsRedirection) {
    auto top = std::make_shared<CapturingLogDestination>();
    auto middleOwn = std::make_shared<CapturingLogDestination>();
    auto app = std::make_shared<Logger>("app", nullptr, Logger::Destinations{top}, false);
    auto middle = app->subLogger("storage", {middleOwn}, false);
    auto leaf = middle->subLogger("sqlite", {}, true);
    EXPECT_EQ(leaf->path(), "app.storage.sqlite");

    leaf->log(LogLevel::info, "from the leaf");
    EXPECT_EQ(middleOwn->messages(), std::vector<std::string>{"from the leaf"});
    EXPECT_TRUE(top->entries().empty()) << "the middle logger does not inherit";

    auto redirected = std::make_shared<CapturingLogDestination>();
    middle->setDestinations({redirected});
    leaf->log(LogLevel::info, "after redirection");
    EXPECT_EQ(redirected->messages(), std::vector<std::string>{"after redirection"});
    EXPECT_EQ(middleOwn->messages().size(), 1U);
    EXPECT_EQ(middle->destinations().size(), 1U);

    // A sub-logger keeps its parent alive.
    std::weak_ptr<Logger> weakApp = app;
    app.reset();
    middle.reset();
    ASSERT_FALSE(weakApp.expired());
    leaf->log(LogLevel::error, "parents still there");
    EXPECT_EQ(redirected->messages().back(), "parents still there");
}

// A destination that throws neither reaches the caller nor keeps the others from the message.
TEST(PlatformLogger, FailingDestinationDoesNotDisturbLogging) {
    auto good = std::make_shared<CapturingLogDestination>();
    auto parentGood = std::make_shared<CapturingLogDestination>();
    auto parent = std::make_shared<Logger>(
        "host", nullptr, Logger::Destinations{std::make_shared<ThrowingDestination>(), parentGood}, false);
    auto child = parent->subLogger("child", {std::make_shared<ThrowingDestination>(), nullptr, good}, true);

    EXPECT_NO_THROW(child->log(LogLevel::error, "still delivered"));
    EXPECT_EQ(good->messages(), std::vector<std::string>{"still delivered"});
    EXPECT_EQ(parentGood->messages(), std::vector<std::string>{"still delivered"});
}

// Loggers and destinations are used from many threads at once (the store logs from every
// caller's thread); nothing is lost or torn.
TEST(PlatformLogger, ConcurrentLoggingKeepsEveryMessage) {
    auto destination = std::make_shared<CapturingLogDestination>();
    auto root = std::make_shared<Logger>("root", nullptr, Logger::Destinations{destination}, false);
    auto child = root->subLogger("worker", {}, true);

    constexpr int threadCount = 8;
    constexpr int messagesPerThread = 200;
    std::vector<std::thread> threads;
    threads.reserve(threadCount);
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < messagesPerThread; ++i) {
                child->log(LogLevel::info, std::to_string(t) + ":" + std::to_string(i));
                if (i % 50 == 0) {
                    root->setDestinations({destination});
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    auto messages = destination->messages();
    EXPECT_EQ(messages.size(), static_cast<std::size_t>(threadCount * messagesPerThread));
    std::set<std::string> distinct(messages.begin(), messages.end());
    EXPECT_EQ(distinct.size(), messages.size());
}

TEST(PlatformLogger, StderrDestinationWritesOneLinePerMessageFromItsMinimumLevel) {
    StderrLogDestination everything;
    StderrLogDestination warningsAndUp(LogLevel::warning);

    ::testing::internal::CaptureStderr();
    everything.write("root.notifications-database", LogLevel::error, "Unable to save: x");
    everything.write("root", LogLevel::verbose, "chatty");
    warningsAndUp.write("root", LogLevel::info, "dropped");
    warningsAndUp.write("root.notification-database-config", LogLevel::warning, "kept");
    std::string written = ::testing::internal::GetCapturedStderr();

    EXPECT_EQ(written,
              "[error] root.notifications-database: Unable to save: x\n"
              "[verbose] root: chatty\n"
              "[warning] root.notification-database-config: kept\n");
    EXPECT_EQ(logLevelName(LogLevel::debug), "debug");
    EXPECT_EQ(logLevelName(LogLevel::info), "info");
}

// Engine errors are rendered from their code, its name and the engine's text only: the
// statement and its bound values, which the what() text may carry, never reach the log.
TEST(PlatformLogSanitizer, RendersEngineErrorsWithoutTheirStatement) {
    EngineError error(19, 787, "SQLITE_CONSTRAINT_FOREIGNKEY", "FOREIGN KEY constraint failed",
                      "INSERT INTO notificationButton VALUES ('secret title') failed");
    std::string text = LogSanitizer::sanitizeError(error);
    EXPECT_EQ(text, "SQLite error 19 (SQLITE_CONSTRAINT_FOREIGNKEY): FOREIGN KEY constraint failed");
    EXPECT_EQ(text.find("secret"), std::string::npos);

    // Caught as a plain exception, as the store's handlers do, the rendering is the same.
    try {
        throw EngineError(5, 5, "SQLITE_BUSY", "database is locked", "BEGIN IMMEDIATE");
    } catch (const std::exception& caught) {
        EXPECT_EQ(LogSanitizer::sanitizeError(caught), "SQLite error 5 (SQLITE_BUSY): database is locked");
    }

    std::runtime_error plain("something else went wrong");
    EXPECT_EQ(LogSanitizer::sanitizeError(plain), "something else went wrong");

    std::filesystem::filesystem_error fileError("cannot create directory", "/home/user/.local/share/Vantro",
                                                std::make_error_code(std::errc::permission_denied));
    EXPECT_EQ(LogSanitizer::sanitizeError(fileError), fileError.what());
}

}  // namespace
}  // namespace notificationdb
