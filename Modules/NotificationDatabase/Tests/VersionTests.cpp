#include <NotificationDatabase/Version.hpp>

#include <gtest/gtest.h>

#include <string>

TEST(Version, ExportsTheWhatStringAndTheProjectNumber) {
    std::string text(reinterpret_cast<const char*>(NotificationDatabaseVersionString));
    EXPECT_EQ(text, "@(#)PROGRAM:NotificationDatabase  PROJECT:Modules-159\n");
    EXPECT_EQ(NotificationDatabaseVersionNumber, 159.0);
}
