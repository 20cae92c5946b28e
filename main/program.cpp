#include "main/program.h"

#include "common/messages.h"
#include "common/result_codes.h"
#include "common/run_options.h"
#include "main/command_line.h"
#include "main/dispatch.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

namespace {

constexpr const char* kLogFile = "corvik.log";
constexpr const char* kMask = "******";  // user name and password never reach the log

// Where the caller closed a standard stream, the next file to be opened would take its number, and
// messages would land in the log or in a document.
void keep_standard_streams_apart() {
    int number = 0;
    while (number >= STDIN_FILENO && number <= STDERR_FILENO) {
        number = open("/dev/null", O_RDWR);
    }
    if (number > STDERR_FILENO) {
        close(number);
    }
}

// A caller that ignores the end of its children hands that on, and no command could be waited for:
// each would seem to have failed.
void be_told_of_commands_that_end() {
    std::signal(SIGCHLD, SIG_DFL);
}

bool open_log() {
    // "e": no command gets it.
    run_options.log.reset(std::fopen(kLogFile, "wbe"));
    if (!run_options.log) {
        print_message("Failed to open corvik logger file.\n");
        return false;
    }
    std::fprintf(run_options.log.get(), "%s %s [%s] [%s] %d\r\n", run_options.type.c_str(),
                 run_options.file.c_str(), kMask, kMask, run_options.remove);
    // A run that ends abnormally leaves this line behind.
    std::fflush(run_options.log.get());
    return true;
}

void close_log(int result) {
    std::fprintf(run_options.log.get(), "rc=%d\n", result);
    run_options.log.reset();
}

int run_get() {
    return dispatch_get(run_options.type, run_options.file, run_options.user, run_options.password);
}

int run_set() {
    return dispatch_set(run_options.type, run_options.file, run_options.user, run_options.password,
                        run_options.remove != 0);
}

int tell_version() {
    print_version();
    return kSuccess;
}

int tell_usage() {
    print_usage();
    return kSuccess;
}

}  // namespace

int run_program(int argc, char* argv[]) {
    keep_standard_streams_apart();
    be_told_of_commands_that_end();
    if (!parse_args(argc, argv)) {
        print_syntax_error();
        return kSyntaxError;
    }
    // Without its log a run is abandoned, deliberately without an error status.
    if (!open_log()) {
        return kSuccess;
    }
    int result = kSuccess;
    switch (run_options.mode) {
        case RunMode::kGet:
            result = run_get();
            break;
        case RunMode::kSet:
            result = run_set();
            break;
        case RunMode::kVersion:
            result = tell_version();
            break;
        case RunMode::kHelp:
            result = tell_usage();
            break;
        default:
            print_syntax_error();
            return kSyntaxError;
    }
    close_log(result);
    return result;
}
