// Linked into every program of the coverage build: writes the counters of a process that aborts,
// which would be lost otherwise.
#include <csignal>

extern "C" void __gcov_dump();

namespace {

void write_counters(int number) {
    __gcov_dump();
    std::signal(number, SIG_DFL);
    std::raise(number);
}

[[maybe_unused]] const auto kInstalled = std::signal(SIGABRT, write_counters);

}  // namespace
