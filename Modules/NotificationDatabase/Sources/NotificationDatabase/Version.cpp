#include "NotificationDatabase/Version.hpp"

// The exported texts name the release; a new release number must reach them too.
static_assert(NOTIFICATIONDB_VERSION_MAJOR == 159 && NOTIFICATIONDB_VERSION_MINOR == 0,
              "update NotificationDatabaseVersionString and NotificationDatabaseVersionNumber");

extern "C" {
const unsigned char NotificationDatabaseVersionString[] = "@(#)PROGRAM:NotificationDatabase  PROJECT:Modules-159\n";
const double NotificationDatabaseVersionNumber = 159.0;
}
