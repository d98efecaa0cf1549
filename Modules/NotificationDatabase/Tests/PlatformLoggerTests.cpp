// Loggers, their destinations and the rendering of errors for the log.

#include <NotificationDatabase/Platform/EngineError.hpp>
#include <NotificationDatabase/Platform/LogSanitizer.hpp>

#include "TestSupport.hpp"

#include <gtest/gtest.h>

#include <set>
#include <thread>

namespace notificationdb {
namespace {

using Lines = std::vector<std::string>;

class ThrowingDestination final : public LogDestination {
public:
    void write(std::string_view, LogLevel, std::string_view) override {
        throw std::runtime_error("destination is broken");
    }
};

// Logs written through a sub-logger of the module logger, as the store and the configuration
// do, reach the host's destinations with the sub-logger's path and the level given. Without
// inheritance and destinations of its own a logger is silent; with both, each gets the message.
TEST(PlatformLogger, SubLoggersDeliverThroughTheModuleLogger) {
    testing::LogCapture capture;
    const auto root = Logger::module();
    EXPECT_EQ(root->path(), "root");
    root->subLogger("notifications-database", {}, true)->log(LogLevel::error, "Unable to fetch: boom");
    root->subLogger("isolated", {}, false)->log(LogLevel::error, "nobody hears this");
    const auto own = std::make_shared<CapturingLogDestination>();
    root->subLogger("both", {own}, true)->log(LogLevel::warning, "twice");

    const auto entries = capture.entries();
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].loggerPath, "root.notifications-database");
    EXPECT_EQ(entries[0].level, LogLevel::error);
    EXPECT_EQ(entries[0].message, "Unable to fetch: boom");
    EXPECT_EQ(entries[1].loggerPath, "root.both");
    EXPECT_EQ(entries[1].level, LogLevel::warning);
    ASSERT_EQ(own->messages(), Lines{"twice"});
    EXPECT_EQ(own->entries()[0].loggerPath, "root.both");
}

// Inheritance follows the whole chain and stops at the first logger that does not inherit;
// redirecting a logger in the middle redirects everything below it; a sub-logger keeps its
// parents alive. A destination that throws neither reaches the caller nor keeps the others from
// the message.
TEST(PlatformLogger, InheritanceWalksTheChainAndFollowsRedirection) {
    auto top = std::make_shared<CapturingLogDestination>();
    auto middleOwn = std::make_shared<CapturingLogDestination>();
    auto app = std::make_shared<Logger>("app", nullptr, Logger::Destinations{top}, false);
    auto middle = app->subLogger("storage", {middleOwn}, false);
    const auto leaf = middle->subLogger("sqlite", {}, true);
    EXPECT_EQ(leaf->path(), "app.storage.sqlite");

    leaf->log(LogLevel::info, "from the leaf");
    EXPECT_EQ(middleOwn->messages(), Lines{"from the leaf"});
    EXPECT_TRUE(top->entries().empty()) << "the middle logger does not inherit";

    const auto redirected = std::make_shared<CapturingLogDestination>();
    middle->setDestinations({std::make_shared<ThrowingDestination>(), nullptr, redirected});
    app.reset();
    middle.reset();
    EXPECT_NO_THROW(leaf->log(LogLevel::error, "after redirection"));
    EXPECT_EQ(redirected->messages(), Lines{"after redirection"});
    EXPECT_EQ(middleOwn->messages().size(), 1U);
}

// Loggers and destinations are used from many threads at once (the store logs from every
// caller's thread); nothing is lost or torn.
TEST(PlatformLogger, ConcurrentLoggingKeepsEveryMessage) {
    auto destination = std::make_shared<CapturingLogDestination>();
    auto root = std::make_shared<Logger>("root", nullptr, Logger::Destinations{destination}, false);
    auto child = root->subLogger("worker", {}, true);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                child->log(LogLevel::info, std::to_string(t) + ":" + std::to_string(i));
                if (i % 50 == 0) root->setDestinations({destination});
            }
        });
    }
    for (auto& thread : threads) thread.join();

    const auto messages = destination->messages();
    EXPECT_EQ(std::set<std::string>(messages.begin(), messages.end()).size(), 8U * 200U);
    EXPECT_EQ(messages.size(), 8U * 200U);
}

TEST(PlatformLogger, StderrDestinationWritesOneLinePerMessageFromItsMinimumLevel) {
    StderrLogDestination everything;
    StderrLogDestination warningsAndUp(LogLevel::warning);
    ::testing::internal::CaptureStderr();
    everything.write("root.notifications-database", LogLevel::error, "Unable to save: x");
    everything.write("root", LogLevel::verbose, "chatty");
    warningsAndUp.write("root", LogLevel::info, "dropped");
    warningsAndUp.write("root.notification-database-config", LogLevel::warning, "kept");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "[error] root.notifications-database: Unable to save: x\n"
              "[verbose] root: chatty\n"
              "[warning] root.notification-database-config: kept\n");
}

// Engine errors are rendered from their code, its name and the engine's text only: the
// statement and its bound values, which the what() text may carry, never reach the log. Other
// errors are rendered by their what() text.
TEST(PlatformLogSanitizer, RendersEngineErrorsWithoutTheirStatement) {
    try {
        throw EngineError(19, 787, "SQLITE_CONSTRAINT_FOREIGNKEY", "FOREIGN KEY constraint failed",
                          "INSERT INTO notificationButton VALUES ('secret title') failed");
    } catch (const std::exception& caught) {
        EXPECT_EQ(LogSanitizer::sanitizeError(caught),
                  "SQLite error 19 (SQLITE_CONSTRAINT_FOREIGNKEY): FOREIGN KEY constraint failed");
    }
    EXPECT_EQ(LogSanitizer::sanitizeError(std::runtime_error("something else went wrong")),
              "something else went wrong");
}

}  // namespace
}  // namespace notificationdb
