#include "common/messages.h"

#include <csignal>
#include <cstdarg>
#include <cstdio>

namespace {

// Keeps the signal for a pipe without reader away from the tool; what it does to a command and to
// the documents stays.
class BrokenPipeIgnored {
public:
    BrokenPipeIgnored() {
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        ::sigaction(SIGPIPE, &ignore, &before_);
    }
    BrokenPipeIgnored(const BrokenPipeIgnored&) = delete;
    BrokenPipeIgnored& operator=(const BrokenPipeIgnored&) = delete;
    ~BrokenPipeIgnored() { ::sigaction(SIGPIPE, &before_, nullptr); }

private:
    struct sigaction before_ {};
};

}  // namespace

void print_message(const char* format, ...) {
    const BrokenPipeIgnored ignored;
    std::va_list arguments;
    va_start(arguments, format);
    static_cast<void>(std::vfprintf(stderr, format, arguments));
    va_end(arguments);
}
