#pragma once

// Checks for the fuzz targets: a broken invariant prints what broke and aborts, which libFuzzer
// reports as a crash and keeps the input that caused it.

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

namespace notificationdb::fuzz {

[[noreturn]] inline void failCheck(const char* file, int line, const char* condition, const std::string& detail) {
    std::fprintf(stderr, "%s:%d: fuzz check failed: %s%s%s\n", file, line, condition, detail.empty() ? "" : ": ",
                 detail.c_str());
    std::abort();
}

// An exception that the code under test must never throw.
[[noreturn]] inline void failUnexpected(const char* where, const std::exception* error) {
    std::fprintf(stderr, "unexpected exception from %s: %s\n", where,
                 error != nullptr ? error->what() : "(not a std::exception)");
    std::abort();
}

}  // namespace notificationdb::fuzz

#define FUZZ_CHECK(condition, detail)                                                                  \
    do {                                                                                               \
        if (!(condition)) ::notificationdb::fuzz::failCheck(__FILE__, __LINE__, #condition, (detail)); \
    } while (false)
