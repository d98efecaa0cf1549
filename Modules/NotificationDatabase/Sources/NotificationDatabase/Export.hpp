#pragma once

// Every public header includes this one first, so a host compiled below C++20 stops here with
// one message instead of a page of errors from the first concept or designated initialiser
// (the missing include makes the stop immediate; #error alone lets the compiler go on).
#if (defined(_MSVC_LANG) ? _MSVC_LANG : __cplusplus) < 202002L
#error "NotificationDatabase's headers need C++20: compile with -std=c++20 or later"
#include <NotificationDatabase needs C++20>
#endif

// Marks what the shared library exports. The library is built with hidden visibility, so
// everything not marked stays inside it; NOTIFICATIONDB_HIDDEN keeps a member of an exported
// class inside too (one that takes a type of the private database layer).
#if defined(__GNUC__) || defined(__clang__)
#define NOTIFICATIONDB_API __attribute__((visibility("default")))
#define NOTIFICATIONDB_HIDDEN __attribute__((visibility("hidden")))
#else
#define NOTIFICATIONDB_API
#define NOTIFICATIONDB_HIDDEN
#endif
