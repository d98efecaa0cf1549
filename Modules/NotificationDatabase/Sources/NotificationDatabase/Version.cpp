#include "NotificationDatabase/Version.hpp"

extern "C" {
const unsigned char NotificationDatabaseVersionString[] = "@(#)PROGRAM:NotificationDatabase  PROJECT:Modules-159\n";
const double NotificationDatabaseVersionNumber = 159.0;
}
