// Linked into every program of the coverage build: writes the counters of a process that aborts,
// which would be lost otherwise.
#include <csignal>

// The compiler's own name.
extern "C" void __gcov_dump();  // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace {

void write_counters(int number) {
    __gcov_dump();
    std::signal(number, SIG_DFL);
    std::raise(number);
}

[[maybe_unused]] const auto kInstalled = std::signal(SIGABRT, write_counters);

}  // namespace
