#pragma once

// Version of the library, exported with C linkage so that tools such as `nm` and `what` can
// find it in the built binary.
extern "C" {
// "@(#)PROGRAM:NotificationDatabase  PROJECT:Modules-159" followed by a line feed.
extern const unsigned char NotificationDatabaseVersionString[];
// 159.0
extern const double NotificationDatabaseVersionNumber;
}
