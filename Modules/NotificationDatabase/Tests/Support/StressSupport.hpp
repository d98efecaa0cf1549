#pragma once

// Helpers shared by the stress tests (threads, processes, crashes).

#include "TestSupport.hpp"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include <unistd.h>

namespace notificationdb::testing {

// `count` scaled by NDB_STRESS_SCALE (default 1), and never below `minimum`.
inline int scaled(int count, int minimum) {
    double factor = 1.0;
    if (const char* text = std::getenv("NDB_STRESS_SCALE")) factor = std::atof(text);
    if (!(factor > 0.0)) factor = 1.0;
    return std::max(minimum, static_cast<int>(count * factor));
}

// A fresh directory for a stress run's database file: below NDB_STRESS_TMPDIR when set, else
// on the memory-backed /dev/shm when there is one, else in the system's temporary directory.
// The file still goes through the kernel's file system, its locks and its shared memory like
// any other; only a commit's fsync, which costs milliseconds on a disk and which neither a race
// between threads or processes nor a killed process depends on, is free there.
inline std::unique_ptr<TemporaryDirectory> makeStressDirectory() {
    std::optional<ScopedEnvironment> base;
    if (const char* chosen = std::getenv("NDB_STRESS_TMPDIR")) {
        base.emplace("TMPDIR", std::string(chosen));
    } else if (::access("/dev/shm", W_OK | X_OK) == 0) {
        base.emplace("TMPDIR", std::string("/dev/shm"));
    }
    return std::make_unique<TemporaryDirectory>();
}

}  // namespace notificationdb::testing
