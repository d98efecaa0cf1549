#pragma once

#include <NotificationDatabase/Export.hpp>
#include <NotificationDatabase/VersionMacros.hpp>

// Version of the library, exported with C linkage so that tools such as `nm` and `what` can
// find it in the built binary. The macros of VersionMacros.hpp give the same release at compile
// time.
extern "C" {
// "@(#)PROGRAM:NotificationDatabase  PROJECT:Modules-159" followed by a line feed.
NOTIFICATIONDB_API extern const unsigned char NotificationDatabaseVersionString[];
// 159.0
NOTIFICATIONDB_API extern const double NotificationDatabaseVersionNumber;
}
