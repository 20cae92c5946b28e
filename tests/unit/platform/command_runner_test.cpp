#include "platform/command_runner.h"

#include "common/file_handle.h"
#include "tests/support/device_fixture.h"
#include "tests/unit/platform/failing_calls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

FailingCalls& failing_calls() {
    static FailingCalls calls;
    return calls;
}

// The program's own symbols come before the C library's.
extern "C" {

pid_t fork() noexcept {
    if (failing_calls().fork) {
        errno = EAGAIN;
        return -1;
    }
    return next<pid_t()>("fork")();
}

FILE* fdopen(int descriptor, const char* mode) noexcept {
    if (failing_calls().fdopen) {
        errno = ENOMEM;
        return nullptr;
    }
    return next<FILE*(int, const char*)>("fdopen")(descriptor, mode);
}

int execv(const char* path, char* const* arguments) noexcept {
    if (failing_calls().execv) {
        errno = ENOENT;
        return -1;
    }
    return next<int(const char*, char* const*)>("execv")(path, arguments);
}

pid_t waitpid(pid_t process, int* status, int options) {
    if (failing_calls().interrupted_waits > 0) {
        --failing_calls().interrupted_waits;
        errno = EINTR;
        return -1;
    }
    return next<pid_t(pid_t, int*, int)>("waitpid")(process, status, options);
}

}  // extern "C"

namespace {

class CommandRunner : public DeviceTest {
protected:
    void TearDown() override {
        failing_calls() = FailingCalls{};
        DeviceTest::TearDown();
    }
};

class RunCommandFirstLine : public CommandRunner {};
class ReadFirstLine : public CommandRunner {};
class ReadAllLines : public CommandRunner {};
class CommandStatus : public CommandRunner {};
class ShellExec : public CommandRunner {};
class ShellPopen : public CommandRunner {};
class ShellWait : public CommandRunner {};

// The first line as the trimming function gives it; fails the test when it is not started.
std::string first_line(const std::string& command) {
    std::string output = "untouched";
    EXPECT_TRUE(run_command_first_line(command, output)) << command;
    return output;
}

std::vector<std::string> all_lines(const std::string& command) {
    std::vector<std::string> lines = {"untouched"};
    EXPECT_TRUE(read_all_lines(command, lines)) << command;
    return lines;
}

int lowest_free_descriptor() {
    const int descriptor = dup(STDERR_FILENO);
    close(descriptor);
    return descriptor;
}

std::string rest_of(std::FILE* stream) {
    std::string text;
    std::array<char, 4096> block;
    while (const std::size_t got = std::fread(block.data(), 1, block.size(), stream)) {
        text.append(block.data(), got);
    }
    return text;
}

struct Outcome {
    int started = 0;
    std::string output;
    int exit_code = 0;

    bool operator==(const Outcome& other) const = default;
};

// The whole calling order of a piped command.
Outcome piped(const std::string& command) {
    std::FILE* stream = nullptr;
    pid_t process = -1;
    Outcome outcome{shell_popen(stream, process, "%s", command.c_str()), "", -2};
    if (outcome.started == 0) {
        outcome.output = rest_of(stream);
        std::fclose(stream);
        outcome.exit_code = shell_wait(process);
    }
    return outcome;
}

void PrintTo(const Outcome& outcome, std::ostream* out) {
    *out << outcome.started << " [" << outcome.output << "] " << outcome.exit_code;
}

TEST_F(RunCommandFirstLine, OfSeveralLines) {
    EXPECT_EQ(first_line("echo one; echo two; echo three"), "one");
}

TEST_F(RunCommandFirstLine, IsTrimmedAtBothEndsOnly) {
    EXPECT_EQ(first_line(R"(printf ' \t\r a  b \r\t \nnext\n')"), "a  b");
}

TEST_F(RunCommandFirstLine, WithoutLineEnd) {
    EXPECT_EQ(first_line("printf word"), "word");
}

TEST_F(RunCommandFirstLine, Keeps1022Characters) {
    EXPECT_EQ(first_line("printf '%01022d\\n' 7"), std::string(1021, '0') + "7");
    EXPECT_EQ(first_line("printf '%01023d\\n' 7"), std::string(1022, '0'));
    EXPECT_EQ(first_line("printf '%05000d\\n' 7"), std::string(1022, '0'));
}

TEST_F(RunCommandFirstLine, CountsTheBlanksThatAreTrimmed) {
    EXPECT_EQ(first_line("printf '%1023s\\n' x"), "");
    EXPECT_EQ(first_line("printf '%1022s\\n' x"), "x");
}

TEST_F(RunCommandFirstLine, OfWhiteSpaceIsEmpty) {
    EXPECT_EQ(first_line(R"(printf ' \t\r\n\nword\n')"), "");
}

TEST_F(RunCommandFirstLine, OfNothingIsEmpty) {
    EXPECT_EQ(first_line("true"), "");
}

TEST_F(RunCommandFirstLine, EndsAtNul) {
    EXPECT_EQ(first_line(R"(printf 'ab\0cd\n')"), "ab");
}

TEST_F(RunCommandFirstLine, OfMissingCommandIsEmpty) {
    EXPECT_EQ(first_line("no_such_command 2>/dev/null"), "");
}

TEST_F(RunCommandFirstLine, OfKilledCommandIsEmpty) {
    EXPECT_EQ(first_line("kill -9 $$"), "");
}

TEST_F(RunCommandFirstLine, LeavesStandardErrorAlone) {
    std::string output;
    EXPECT_EQ(captured_stderr([&] { run_command_first_line("echo word; echo no >&2", output); }),
              "no\n");
    EXPECT_EQ(output, "word");
}

TEST_F(RunCommandFirstLine, DoesNotReadEndlessOutput) {
    EXPECT_EQ(first_line("yes word"), "word");
    EXPECT_TRUE(has_no_child());
}

TEST_F(RunCommandFirstLine, EndsAfterTheCommand) {
    const std::string file = Programs().Path("done");
    EXPECT_EQ(first_line("echo word; sleep 0.1; touch " + file), "word");
    EXPECT_TRUE(std::filesystem::exists(file));
    EXPECT_TRUE(has_no_child());
}

TEST_F(RunCommandFirstLine, LeavesTheOutputWhenNotStarted) {
    std::string output = "untouched";
    bool started = true;
    {
        const NoMoreDescriptors limit;
        started = run_command_first_line("echo word", output);
    }
    EXPECT_FALSE(started);
    EXPECT_EQ(output, "untouched");
}

TEST_F(ReadFirstLine, IsNotTrimmed) {
    std::string line;
    EXPECT_TRUE(read_first_line(R"(printf ' key value \r\nnext\n')", line));
    EXPECT_EQ(line, " key value \r\n");
}

TEST_F(ReadFirstLine, Keeps1022Characters) {
    std::string line;
    EXPECT_TRUE(read_first_line("printf '%01021d\\n' 7", line));
    EXPECT_EQ(line, std::string(1020, '0') + "7\n");
    EXPECT_TRUE(read_first_line("printf '%01022d\\n' 7", line));
    EXPECT_EQ(line, std::string(1021, '0') + "7");
    EXPECT_TRUE(read_first_line("printf '%01023d\\n' 7", line));
    EXPECT_EQ(line, std::string(1022, '0'));
}

TEST_F(ReadFirstLine, OfNothingIsEmpty) {
    std::string line = "untouched";
    EXPECT_TRUE(read_first_line("true", line));
    EXPECT_EQ(line, "");
}

TEST_F(ReadFirstLine, LeavesTheLineWhenNotStarted) {
    std::string line = "untouched";
    bool started = true;
    {
        const NoMoreDescriptors limit;
        started = read_first_line("echo word", line);
    }
    EXPECT_FALSE(started);
    EXPECT_EQ(line, "untouched");
}

TEST_F(ReadAllLines, KeepLineEnds) {
    EXPECT_THAT(all_lines(R"(printf ' one \r\n\ntwo words\nlast')"),
                ElementsAre(" one \r\n", "\n", "two words\n", "last"));
}

TEST_F(ReadAllLines, OfNothingAreNone) {
    EXPECT_THAT(all_lines("true"), IsEmpty());
}

TEST_F(ReadAllLines, OfFailingCommandAreWhatItPrinted) {
    EXPECT_THAT(all_lines("echo one; exit 3"), ElementsAre("one\n"));
}

TEST_F(ReadAllLines, ComeInPiecesOf1023Characters) {
    EXPECT_THAT(all_lines("printf '%01022d\\nend\\n' 7"),
                ElementsAre(std::string(1021, '0') + "7\n", "end\n"));
    EXPECT_THAT(all_lines("printf '%01023d\\nend\\n' 7"),
                ElementsAre(std::string(1022, '0') + "7", "\n", "end\n"));
    EXPECT_THAT(
        all_lines("printf '%02100d\\n' 7"),
        ElementsAre(std::string(1023, '0'), std::string(1023, '0'), std::string(53, '0') + "7\n"));
}

TEST_F(ReadAllLines, AreReadToTheEnd) {
    const std::vector<std::string> lines = all_lines("seq 100000");
    ASSERT_EQ(lines.size(), 100000U);
    EXPECT_EQ(lines.front(), "1\n");
    EXPECT_EQ(lines.back(), "100000\n");
}

TEST_F(ReadAllLines, EndAfterTheCommand) {
    const std::string file = Programs().Path("done");
    EXPECT_THAT(all_lines("echo word; exec >&-; sleep 0.1; touch " + file), ElementsAre("word\n"));
    EXPECT_TRUE(std::filesystem::exists(file));
    EXPECT_TRUE(has_no_child());
}

TEST_F(ReadAllLines, LeaveTheListWhenNotStarted) {
    std::vector<std::string> lines = {"untouched"};
    bool started = true;
    {
        const NoMoreDescriptors limit;
        started = read_all_lines("echo word", lines);
    }
    EXPECT_FALSE(started);
    EXPECT_THAT(lines, ElementsAre("untouched"));
}

TEST_F(CommandStatus, OfSuccessIsZero) {
    EXPECT_EQ(command_status("exit 0"), 0);
}

TEST_F(CommandStatus, IsTheRawStatus) {
    EXPECT_EQ(command_status("exit 3"), 3 << 8);
    EXPECT_EQ(command_status("kill -9 $$"), SIGKILL);
}

TEST_F(CommandStatus, OfMissingCommandIs127) {
    EXPECT_EQ(command_status("no_such_command 2>/dev/null"), 127 << 8);
}

TEST_F(CommandStatus, OfMissingKeyMeansAbsent) {
    Programs().PutProgram("regsh", "[ \"$1 $2\" = 'contains root/present' ]\n");
    EXPECT_EQ(command_status("regsh contains root/present"), 0);
    EXPECT_NE(command_status("regsh contains root/absent"), 0);
}

TEST_F(CommandStatus, OutputIsInherited) {
    EXPECT_EQ(captured_stdout([] { command_status("echo out"); }), "out\n");
    EXPECT_EQ(captured_stderr([] { command_status("echo no >&2"); }), "no\n");
}

TEST(FormatCommand, FillsIn) {
    EXPECT_EQ(format_command(kCommandLimit, "regsh set %s/%s %d", "root", "a b", 7),
              "regsh set root/a b 7");
}

TEST(FormatCommand, CutsAtItsLimit) {
    const std::string text(2000, 'x');
    EXPECT_EQ(format_command(1023, "%s", text.c_str()), std::string(1023, 'x'));
    EXPECT_EQ(format_command(1022, "%s", text.c_str()), std::string(1022, 'x'));
    EXPECT_EQ(format_command(0, "%s", text.c_str()), "");
}

TEST(FormatCommand, KeepsWhatFitsExactly) {
    const std::string text(1023, 'x');
    EXPECT_EQ(format_command(1023, "%s", text.c_str()), text);
}

TEST(FormatCommand, HasNoHigherLimitThanTheBuffer) {
    const std::string text(2000, 'x');
    EXPECT_EQ(format_command(1024, "%s", text.c_str()), std::string(1023, 'x'));
    EXPECT_EQ(format_command(static_cast<std::size_t>(-1), "%s", text.c_str()),
              std::string(1023, 'x'));
}

TEST(ShellWord, OfPlainCharactersStays) {
    const std::string plain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_./:@%+=,-";
    EXPECT_EQ(shell_word(plain), plain);
}

TEST(ShellWord, OfNothingStaysNothing) {
    EXPECT_EQ(shell_word(""), "");
}

TEST(ShellWord, OfAnyOtherCharacterIsQuoted) {
    const std::string plain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_./:@%+=,-";
    for (int byte = 1; byte < 256; ++byte) {
        const std::string value = "a" + std::string(1, static_cast<char>(byte)) + "b";
        if (byte == '\'') {
            EXPECT_EQ(shell_word(value), R"('a'\''b')");
        } else if (plain.find(static_cast<char>(byte)) == std::string::npos) {
            EXPECT_EQ(shell_word(value), "'" + value + "'") << byte;
        } else {
            EXPECT_EQ(shell_word(value), value) << byte;
        }
    }
}

TEST(ShellWord, OfSingleQuotesAlone) {
    EXPECT_EQ(shell_word("'"), R"(''\''')");
    EXPECT_EQ(shell_word("''"), R"(''\'''\''')");
}

TEST_F(ShellExec, ShellWordReachesACommandWithItsBytes) {
    std::string every_byte;
    for (int byte = 1; byte < 256; ++byte) {
        every_byte += static_cast<char>(byte);
    }
    for (const std::string& value :
         {every_byte, std::string("$(touch x);`id`|&<>*?[a-z]~#!\\"), std::string("-n"),
          std::string("a\nb\n"), std::string("'\"'\"")}) {
        const std::string command =
            "printf '%s|' root/" + shell_word(value) + "/autostart " + shell_word("b");
        EXPECT_EQ(piped(command), (Outcome{0, "root/" + value + "/autostart|b|", 0}));
    }
}

TEST_F(ShellExec, GivesTheExitCode) {
    EXPECT_EQ(shell_exec("exit 0"), 0);
    EXPECT_EQ(shell_exec("exit 7"), 7);
    EXPECT_EQ(shell_exec("exit 255"), 255);
}

TEST_F(ShellExec, FillsIn) {
    EXPECT_EQ(shell_exec("[ '%s' = 'a b' ] && exit %d", "a b", 9), 9);
}

TEST_F(ShellExec, CutsAt4094Characters) {
    EXPECT_EQ(shell_exec("%s", (std::string(4087, ' ') + "exit 17").c_str()), 17);
    EXPECT_EQ(shell_exec("%s", (std::string(4088, ' ') + "exit 17").c_str()), 1);
}

TEST_F(ShellExec, OfMissingCommandIs127) {
    EXPECT_EQ(shell_exec("no_such_command 2>/dev/null"), 127);
}

TEST_F(ShellExec, OfKilledShellIsMinusOne) {
    EXPECT_EQ(shell_exec("kill -9 $$"), -1);
    EXPECT_TRUE(has_no_child());
}

TEST_F(ShellExec, OutputIsInherited) {
    EXPECT_EQ(captured_stdout([] { shell_exec("echo out"); }), "out\n");
    EXPECT_EQ(captured_stderr([] { shell_exec("echo no >&2"); }), "no\n");
}

TEST_F(ShellExec, WhenForkFailsIsMinusOne) {
    failing_calls().fork = true;
    EXPECT_EQ(shell_exec("exit 0"), -1);
    EXPECT_EQ(shell_exec_raw("exit 0"), -1);
}

TEST_F(ShellExec, WhenForkFailsNoOtherChildIsWaitedFor) {
    const pid_t other = fork();
    if (other == 0) {
        _exit(5);
    }
    failing_calls().fork = true;
    EXPECT_EQ(shell_exec_raw("exit 0"), -1);
    EXPECT_EQ(shell_exec("exit 0"), -1);
    int status = 0;
    EXPECT_EQ(waitpid(other, &status, 0), other);
    EXPECT_EQ(WEXITSTATUS(status), 5);
}

TEST_F(ShellExec, MissingCommandIsToldByTheShellsName) {
    EXPECT_EQ(captured_stderr([] { shell_exec("no-such-program"); }),
              "sh: 1: no-such-program: not found\n");
}

TEST_F(ShellExec, WhenWaitingFailsIsMinusOne) {
    // Children of a process that ignores this signal leave nothing to wait for.
    const auto before = signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(shell_exec("exit 0"), -1);
    signal(SIGCHLD, before);
}

TEST_F(ShellExec, WaitsAgainWhenInterrupted) {
    failing_calls().interrupted_waits = 2;
    EXPECT_EQ(shell_exec("exit 6"), 6);
    EXPECT_EQ(failing_calls().interrupted_waits, 0);
}

TEST_F(ShellExec, WithoutShellIs127) {
    failing_calls().execv = true;
    EXPECT_EQ(shell_exec("exit 0"), 127);
}

TEST_F(ShellExec, WithoutShellPrintsBufferedTextOnce) {
    EXPECT_EQ(captured_stdout([] {
                  failing_calls().execv = true;
                  std::printf("buffered ");
                  shell_exec("exit 0");
                  std::printf("text");
              }),
              "buffered text");
}

TEST_F(ShellExec, RawOfNullIsOne) {
    failing_calls().fork = true;
    EXPECT_EQ(shell_exec_raw(nullptr), 1);
}

TEST_F(ShellExec, RawIsNotFormatted) {
    EXPECT_EQ(shell_exec_raw("[ '%s%d%%' = '%''s%''d%''%' ] && exit 4"), 4);
}

TEST_F(ShellExec, RawIsNotCut) {
    EXPECT_EQ(shell_exec_raw((std::string(9000, ' ') + "exit 17").c_str()), 17);
}

TEST_F(ShellPopen, GivesStandardOutputAndStandardError) {
    EXPECT_EQ(piped("echo out; echo no >&2; exit 5"), (Outcome{0, "out\nno\n", 5}));
}

TEST_F(ShellPopen, TheShellHasThePipeAsItsOutputsOnly) {
    EXPECT_EQ(piped("pipe=$(readlink /proc/$$/fd/1)\n"
                    "for end in /proc/$$/fd/*; do\n"
                    "    [ \"$(readlink \"$end\")\" != \"$pipe\" ] || printf '%s ' \"${end##*/}\"\n"
                    "done")
                  .output,
              "1 2 ");
}

TEST_F(ShellPopen, OfNoOutput) {
    EXPECT_EQ(piped("exit 0"), (Outcome{0, "", 0}));
}

TEST_F(ShellPopen, FillsIn) {
    std::FILE* stream = nullptr;
    pid_t process = -1;
    ASSERT_EQ(shell_popen(stream, process, "echo '%s' %d", "a b", 9), 0);
    const FileHandle owner(stream);
    EXPECT_EQ(rest_of(stream), "a b 9\n");
    EXPECT_EQ(shell_wait(process), 0);
}

TEST_F(ShellPopen, CutsAt4094Characters) {
    EXPECT_EQ(piped(std::string(4087, ' ') + "echo 17").output, "17\n");
    EXPECT_EQ(piped(std::string(4088, ' ') + "echo 17").output, "1\n");
}

TEST_F(ShellPopen, OfMuchOutput) {
    EXPECT_EQ(piped("printf '%01000000d' 7").output.size(), 1000000U);
}

TEST_F(ShellPopen, OfMissingCommandSaysSoOnTheStream) {
    const Outcome outcome = piped("no_such_command");
    EXPECT_EQ(outcome.started, 0);
    EXPECT_THAT(outcome.output, testing::HasSubstr("no_such_command"));
    EXPECT_EQ(outcome.exit_code, 127);
}

TEST_F(ShellPopen, OfKilledShellIsMinusOne) {
    EXPECT_EQ(piped("echo out; kill -9 $$"), (Outcome{0, "out\n", -1}));
}

TEST_F(ShellPopen, WithoutShellIs127) {
    failing_calls().execv = true;
    EXPECT_EQ(piped("echo out"), (Outcome{0, "", 127}));
}

TEST_F(ShellPopen, WithoutPipeIsOne) {
    std::FILE* stream = nullptr;
    int started = 0;
    {
        const NoMoreDescriptors limit;
        pid_t process = -1;
        started = shell_popen(stream, process, "echo out");
    }
    EXPECT_EQ(started, 1);
    EXPECT_EQ(stream, nullptr);
}

TEST_F(ShellPopen, WhenForkFailsIsMinusOneAndNothingStaysOpen) {
    const int before = lowest_free_descriptor();
    const int next = dup(STDERR_FILENO);  // two are free when both ends have been closed
    const int behind = lowest_free_descriptor();
    close(next);
    failing_calls().fork = true;
    EXPECT_EQ(piped("echo out").started, -1);
    EXPECT_EQ(lowest_free_descriptor(), before);
    EXPECT_EQ(dup(STDERR_FILENO), next);
    EXPECT_EQ(lowest_free_descriptor(), behind);
    close(next);
}

TEST_F(ShellPopen, WithoutStreamIsOneAndNothingStaysOpen) {
    const int before = lowest_free_descriptor();
    failing_calls().fdopen = true;
    std::FILE* stream = nullptr;
    pid_t process = -1;
    EXPECT_EQ(shell_popen(stream, process, "exit 3"), 1);
    EXPECT_EQ(lowest_free_descriptor(), before);
    EXPECT_EQ(shell_wait(process), 3);
}

// A standard descriptor that is closed while it lives. The copy must not land on another closed
// one, which is to stay free.
class ClosedDescriptor {
public:
    explicit ClosedDescriptor(int descriptor)
        : descriptor_(descriptor), copy_(fcntl(descriptor, F_DUPFD, 10)) {
        close(descriptor_);
    }
    ~ClosedDescriptor() {
        dup2(copy_, descriptor_);
        close(copy_);
    }
    ClosedDescriptor(const ClosedDescriptor&) = delete;
    ClosedDescriptor& operator=(const ClosedDescriptor&) = delete;

private:
    int descriptor_;
    int copy_;
};

TEST_F(ShellPopen, WhenStandardOutputIsClosed) {
    Outcome outcome;
    {
        const ClosedDescriptor output(STDOUT_FILENO);
        outcome = piped("echo out; echo no >&2");
    }
    EXPECT_EQ(outcome, (Outcome{0, "out\nno\n", 0}));
}

TEST_F(ShellPopen, WhenThePipeEndsOnStandardOutput) {
    Outcome outcome;
    {
        const ClosedDescriptor input(STDIN_FILENO);
        const ClosedDescriptor output(STDOUT_FILENO);
        outcome = piped("echo out");
    }
    EXPECT_EQ(outcome, (Outcome{0, "out\n", 0}));
}

TEST_F(ShellWait, ForNoChildIsMinusOne) {
    EXPECT_EQ(shell_wait(getpid()), -1);
}

TEST_F(ShellWait, WaitsAgainWhenInterrupted) {
    failing_calls().interrupted_waits = 2;
    EXPECT_EQ(piped("exit 6"), (Outcome{0, "", 6}));
    EXPECT_EQ(failing_calls().interrupted_waits, 0);
}

}  // namespace
