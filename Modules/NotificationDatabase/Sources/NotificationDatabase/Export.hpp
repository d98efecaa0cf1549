#pragma once

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
