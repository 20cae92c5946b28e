#include "common/messages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <string>

namespace {

using testing::ExitedWithCode;
using testing::KilledBySignal;

void (*sigpipe_handler())(int) {
    struct sigaction now {};
    sigaction(SIGPIPE, nullptr, &now);
    return now.sa_handler;
}

// Standard error becomes a pipe that nobody reads any more.
void leave_standard_error_unread() {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0 || dup2(ends[1], STDERR_FILENO) == -1) {
        std::exit(2);
    }
    close(ends[0]);
    close(ends[1]);
}

TEST(PrintMessage, TakesAFormatAndAddsNothing) {
    testing::internal::CaptureStderr();
    print_message("100%% of %s at %d.", "it", 7);
    print_message("%s\n", std::string(5000, 'x').c_str());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "100% of it at 7." + std::string(5000, 'x') + "\n");
}

TEST(PrintMessageDeathTest, IsLostWhereNobodyReads) {
    EXPECT_EXIT(
        {
            leave_standard_error_unread();
            print_message("a message\n");
            print_message("and %s\n", "another");
            std::_Exit(7);
        },
        ExitedWithCode(7), "");
}

TEST(PrintMessageDeathTest, LeavesTheSignalAsItWas) {
    EXPECT_EXIT(
        {
            std::signal(SIGPIPE, SIG_DFL);
            leave_standard_error_unread();
            print_message("a message\n");
            std::raise(SIGPIPE);
        },
        KilledBySignal(SIGPIPE), "");
    const auto before = std::signal(SIGPIPE, SIG_IGN);
    testing::internal::CaptureStderr();
    print_message("a message\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "a message\n");
    EXPECT_EQ(sigpipe_handler(), SIG_IGN);
    std::signal(SIGPIPE, before);
}

}  // namespace
