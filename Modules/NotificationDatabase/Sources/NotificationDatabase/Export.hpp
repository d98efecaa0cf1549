#pragma once

// Marks what the shared library exports. The library is built with hidden visibility, so
// everything not marked stays inside it.
#if defined(__GNUC__) || defined(__clang__)
#define NOTIFICATIONDB_API __attribute__((visibility("default")))
#else
#define NOTIFICATIONDB_API
#endif
