#pragma once

#include <dlfcn.h>

#include <array>
#include <cstddef>

// Which call of the program is to fail, and what has been called so far.

enum Call {
    kPopen,
    kSystem,
    kSpawn,
    kSpawnSetup,
    kFork,
    kWaitpid,
    kPipe,
    kFopen,
    kFdopen,
    kFread,
    kFgets,
    kFwrite,
    kShortFwrite,
    kSetvbuf,
    kFflush,
    kFclose,
    kStat,
    kNew,
    kCalls
};

// Lives without memory of its own, because operator new asks it.
class Plan {
public:
    Plan();

    // Counts this call and tells, with errno set, whether it is the one that fails.
    bool strikes(Call call);

    bool concerns(const char* path) const;

    // Writes how often each call was made into the file of FAIL_REPORT.
    void report_counts() const;

private:
    void take_path(const char* setting, std::array<char, 4096>& path);
    void report(const char* text, std::size_t size) const;

    std::array<long, kCalls> failing_{};  // number of the failing call; 0: none fails
    std::array<long, kCalls> made_{};
    std::array<char, 4096> path_{};
    std::array<char, 4096> report_{};
    int error_ = 0;
};

Plan& plan();

// True from main() on: the C++ library's spare memory, taken before, is none of the program's.
bool has_begun();

// True of code of the program itself, not of its libraries.
bool is_program(const void* caller);

// The function that is hidden by the one of the same name here.
template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
