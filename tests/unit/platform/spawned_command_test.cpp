#include "platform/spawned_command.h"

#include "platform/command_runner.h"
#include "tests/support/device_fixture.h"
#include "tests/unit/platform/failing_calls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <new>
#include <ostream>
#include <string_view>
#include <tuple>
#include <utility>

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

using Words = std::vector<std::string>;

// What is prepared for a program that is started without a shell.
enum class Step { kNone, kAttributes, kActions, kRedirection };

// Programs that were asked for without a shell, the error that the next ones end in, and the step
// for which there is no memory.
struct SpawnCalls {
    int made = 0;
    int error = 0;
    Step refused = Step::kNone;
};

SpawnCalls& spawn_calls() {
    static SpawnCalls calls;
    return calls;
}

template <typename... Arguments>
int prepare(Step step, const char* name, Arguments... arguments) {
    if (spawn_calls().refused == step) {
        return ENOMEM;
    }
    return reinterpret_cast<int (*)(Arguments...)>(dlsym(RTLD_NEXT, name))(arguments...);
}

}  // namespace

namespace {

// How many of the next allocations succeed; negative: all.
long allocations_left = -1;

}  // namespace

// Not inlined: the compiler would take malloc and free for a mismatch with the callers' operators.
[[gnu::noinline]] void* operator new(std::size_t size) {
    if (allocations_left == 0) {
        throw std::bad_alloc();
    }
    allocations_left -= allocations_left > 0 ? 1 : 0;
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

// The program's own symbols come before the C library's, whose system and popen do not come here.
extern "C" {

int posix_spawnp(pid_t* process, const char* file, const posix_spawn_file_actions_t* actions,
                 const posix_spawnattr_t* attributes, char* const* arguments,
                 char* const* environment) {
    ++spawn_calls().made;
    if (spawn_calls().error != 0) {
        return spawn_calls().error;
    }
    const auto next = reinterpret_cast<decltype(&posix_spawnp)>(dlsym(RTLD_NEXT, "posix_spawnp"));
    return next(process, file, actions, attributes, arguments, environment);
}

int posix_spawnattr_init(posix_spawnattr_t* attributes) noexcept {
    return prepare(Step::kAttributes, "posix_spawnattr_init", attributes);
}

int posix_spawn_file_actions_init(posix_spawn_file_actions_t* actions) noexcept {
    return prepare(Step::kActions, "posix_spawn_file_actions_init", actions);
}

int posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t* actions, int from,
                                     int to) noexcept {
    return prepare(Step::kRedirection, "posix_spawn_file_actions_adddup2", actions, from, to);
}

}  // extern "C"

namespace {

class SpawnedCommand : public DeviceTest {
protected:
    void TearDown() override {
        failing_calls() = FailingCalls{};
        spawn_calls() = SpawnCalls{};
        DeviceTest::TearDown();
    }
};

class PlainWords : public SpawnedCommand {};
class PlainCommands : public SpawnedCommand {};
class SpawnStatus : public SpawnedCommand {};
class SpawnedStream : public SpawnedCommand {};
class SpawnOrShell : public SpawnedCommand {};

// PATH has another value, or none, for as long as it lives.
class SearchPath {
public:
    SearchPath() : before_(std::getenv("PATH")) { unsetenv("PATH"); }
    explicit SearchPath(const std::string& value) : SearchPath() {
        setenv("PATH", value.c_str(), 1);
    }
    ~SearchPath() { setenv("PATH", before_.c_str(), 1); }
    SearchPath(const SearchPath&) = delete;
    SearchPath& operator=(const SearchPath&) = delete;

private:
    std::string before_;
};

// The working folder is another one for as long as it lives.
class WorkingFolder {
public:
    explicit WorkingFolder(const std::filesystem::path& folder)
        : before_(std::filesystem::current_path()) {
        std::filesystem::current_path(folder);
    }
    ~WorkingFolder() { std::filesystem::current_path(before_); }
    WorkingFolder(const WorkingFolder&) = delete;
    WorkingFolder& operator=(const WorkingFolder&) = delete;

private:
    std::filesystem::path before_;
};

// A signal is treated so for as long as it lives.
class Disposition {
public:
    Disposition(int signal, void (*handler)(int), int flags = 0) : signal_(signal) {
        struct sigaction action {};
        action.sa_handler = handler;
        action.sa_flags = flags;
        sigaction(signal, &action, &before_);
    }
    ~Disposition() { sigaction(signal_, &before_, nullptr); }
    Disposition(const Disposition&) = delete;
    Disposition& operator=(const Disposition&) = delete;

private:
    int signal_;
    struct sigaction before_ {};
};

// Exactly these signals are blocked for as long as it lives.
class BlockedSignals {
public:
    explicit BlockedSignals(const std::vector<int>& signals) {
        sigset_t set;
        sigemptyset(&set);
        for (const int signal : signals) {
            sigaddset(&set, signal);
        }
        sigprocmask(SIG_SETMASK, &set, &before_);
    }
    ~BlockedSignals() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

private:
    sigset_t before_{};
};

// What this process does with a signal now.
struct sigaction disposition(int signal) {
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    return action;
}

std::vector<int> blocked_signals() {
    sigset_t set;
    sigprocmask(SIG_SETMASK, nullptr, &set);
    std::vector<int> signals;
    for (int signal = 1; signal < NSIG; ++signal) {
        if (sigismember(&set, signal) == 1) {
            signals.push_back(signal);
        }
    }
    return signals;
}

volatile sig_atomic_t signals_taken = 0;

void take_signal(int /*signal*/) {
    signals_taken = signals_taken + 1;
}

constexpr const char* kMark = "/tmp/spawned_command.mark";
// Whether the program had set its mark when the first signal came; -1 before.
volatile sig_atomic_t mark_was_there = -1;

void look_for_mark(int /*signal*/) {
    if (mark_was_there == -1) {
        mark_was_there = access(kMark, F_OK) == 0 ? 1 : 0;
    }
}

// A standard descriptor is something else, or closed, for as long as it lives.
class ReplacedDescriptor {
public:
    explicit ReplacedDescriptor(int descriptor)
        : descriptor_(descriptor), copy_(fcntl(descriptor, F_DUPFD_CLOEXEC, 10)) {
        close(descriptor);
    }
    ReplacedDescriptor(int descriptor, const std::string& file) : ReplacedDescriptor(descriptor) {
        const int opened = open(file.c_str(), O_RDONLY);
        dup2(opened, descriptor);
        if (opened != descriptor) {
            close(opened);
        }
    }
    ~ReplacedDescriptor() {
        dup2(copy_, descriptor_);
        close(copy_);
    }
    ReplacedDescriptor(const ReplacedDescriptor&) = delete;
    ReplacedDescriptor& operator=(const ReplacedDescriptor&) = delete;

private:
    int descriptor_;
    int copy_;
};

std::vector<int> open_descriptors() {
    std::vector<int> descriptors;
    for (int descriptor = 0; descriptor < 256; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) != -1) {
            descriptors.push_back(descriptor);
        }
    }
    return descriptors;
}

// The descriptors 3 to 9 that a program gets from this process, as kListDescriptors prints them.
std::string inheritable_descriptors() {
    std::string list;
    for (int descriptor = 3; descriptor < 10; ++descriptor) {
        const int flags = fcntl(descriptor, F_GETFD);
        if (flags != -1 && (flags & FD_CLOEXEC) == 0) {
            list += std::to_string(descriptor) + "\n";
        }
    }
    return list;
}

constexpr const char* kListDescriptors =
    "for n in 3 4 5 6 7 8 9; do\n"
    "    (eval \": >&$n\") 2>/dev/null && echo $n\n"
    "done\n"
    "exit 0\n";

std::string rest_of(std::FILE* stream) {
    std::string text;
    std::array<char, 4096> block;
    while (const std::size_t got = std::fread(block.data(), 1, block.size(), stream)) {
        text.append(block.data(), got);
    }
    return text;
}

// All that the program prints; fails the test when it is not started.
std::string spawned_text(const Words& words) {
    const SpawnedOutput output(words);
    EXPECT_FALSE(output.NeedsShell());
    if (output.Stream() == nullptr) {
        ADD_FAILURE() << "not started";
        return "";
    }
    return rest_of(output.Stream());
}

std::string every_byte_but_nul() {
    std::string bytes;
    for (int byte = 1; byte < 256; ++byte) {
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

constexpr std::string_view kPlain =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_./:@%+=,-";

// The status of a shell whose program a signal has ended.
int ended_by(int signal) {
    return (128 + signal) << 8;
}

// The status of the client that is asked for the signal; what is said of its end is dropped.
std::optional<int> quietly_ended(const std::string& signal) {
    std::optional<int> status;
    captured_stderr([&] { status = spawn_status({"regsh", signal}); });
    return status;
}

TEST_F(PlainWords, AreSplitAtSingleBlanks) {
    EXPECT_THAT(plain_words("regsh"), Optional(ElementsAre("regsh")));
    EXPECT_THAT(plain_words("regsh get root/a/b-c"),
                Optional(ElementsAre("regsh", "get", "root/a/b-c")));
    EXPECT_THAT(plain_words("rm -f /tmp/import.xml"),
                Optional(ElementsAre("rm", "-f", "/tmp/import.xml")));
    EXPECT_THAT(
        plain_words("regsh a b c d e f g h i j k"),
        Optional(ElementsAre("regsh", "a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k")));
}

TEST_F(PlainWords, MayBeLong) {
    const std::string word(100000, 'x');
    EXPECT_THAT(plain_words("regsh " + word), Optional(ElementsAre("regsh", word)));
}

TEST_F(PlainWords, AreOfTheseCharactersOnly) {
    for (int byte = 1; byte < 256; ++byte) {
        const std::string character(1, static_cast<char>(byte));
        if (kPlain.find(character) != std::string_view::npos) {
            EXPECT_THAT(plain_words("regsh " + character),
                        Optional(ElementsAre("regsh", character)))
                << byte;
            EXPECT_THAT(plain_words("regsh a" + character + "b c"),
                        Optional(ElementsAre("regsh", "a" + character + "b", "c")))
                << byte;
        } else if (character != " ") {
            EXPECT_EQ(plain_words("regsh a" + character + "b"), std::nullopt) << byte;
            EXPECT_EQ(plain_words("regsh " + character + "b"), std::nullopt) << byte;
            EXPECT_EQ(plain_words("regsh" + character + "b"), std::nullopt) << byte;
            EXPECT_EQ(plain_words(character + "regsh b"), std::nullopt) << byte;
            EXPECT_EQ(plain_words("regsh b " + character + " c"), std::nullopt) << byte;
        }
    }
}

TEST_F(PlainWords, AreNoneWithACharacterAtTheEndThatIsNotPlain) {
    for (int byte = 1; byte < 256; ++byte) {
        const std::string character(1, static_cast<char>(byte));
        if (character != "\n" && kPlain.find(character) == std::string_view::npos) {
            EXPECT_EQ(plain_words("regsh b" + character), std::nullopt) << byte;
        }
    }
}

TEST_F(PlainWords, AreNoneOfALineWithNul) {
    EXPECT_EQ(plain_words(std::string("regsh\0", 6)), std::nullopt);
    EXPECT_EQ(plain_words(std::string("regsh a\0b", 9)), std::nullopt);
    EXPECT_EQ(plain_words(std::string("\0regsh", 6)), std::nullopt);
    EXPECT_EQ(plain_words(std::string("regsh a\0\n", 9)), std::nullopt);
}

TEST_F(PlainWords, AreNoneWithOtherBlanks) {
    for (const char* line : {"regsh  a", "regsh a  b", " regsh a", "regsh a ", "regsh ", "regsh\ta",
                             "regsh a\t", "\tregsh a", "regsh \ta", "regsh a \n", " ", "  "}) {
        EXPECT_EQ(plain_words(line), std::nullopt) << '[' << line << ']';
    }
}

TEST_F(PlainWords, MayEndInOneLineFeed) {
    EXPECT_THAT(plain_words("regsh a\n"), Optional(ElementsAre("regsh", "a")));
    EXPECT_THAT(plain_words("regsh\n"), Optional(ElementsAre("regsh")));
    EXPECT_EQ(plain_words("regsh a\n\n"), std::nullopt);
    EXPECT_EQ(plain_words("regsh a\r\n"), std::nullopt);
    EXPECT_EQ(plain_words("\nregsh a"), std::nullopt);
    EXPECT_EQ(plain_words("regsh\na"), std::nullopt);
}

TEST_F(PlainWords, AreNoneOfNothing) {
    EXPECT_EQ(plain_words(""), std::nullopt);
    EXPECT_EQ(plain_words("\n"), std::nullopt);
    EXPECT_EQ(plain_words("\n\n"), std::nullopt);
}

TEST_F(PlainWords, AreNoneOfOtherPrograms) {
    for (const char* program :
         {"./regsh", "/usr/bin/regsh", "REGSH", "Regsh", "regshx", "xregsh", "regs", "regsh.sh",
          "regsh,rm", "./rm", "/bin/rm", "RM", "rmdir", "r", "m", "echo", "exec", "cd", "%regsh"}) {
        EXPECT_EQ(plain_words(program), std::nullopt) << program;
        EXPECT_EQ(plain_words(std::string(program) + " a"), std::nullopt) << program;
        EXPECT_EQ(plain_words(std::string(program) + " regsh rm"), std::nullopt) << program;
    }
}

TEST_F(PlainWords, AreNoneBehindAnAssignment) {
    for (const char* line : {"A=b regsh", "A=b regsh a", "A= regsh a", "regsh=a", "rm=a rm"}) {
        EXPECT_EQ(plain_words(line), std::nullopt) << line;
    }
}

TEST_F(PlainWords, AreNoneWithoutASearchPath) {
    {
        const SearchPath none;
        EXPECT_EQ(plain_words("regsh a"), std::nullopt);
        EXPECT_EQ(plain_words("rm a"), std::nullopt);
    }
    const SearchPath empty("");
    EXPECT_THAT(plain_words("regsh a"), Optional(ElementsAre("regsh", "a")));
}

TEST_F(PlainCommands, StandBetweenSemicolons) {
    EXPECT_THAT(plain_commands("rm -f /tmp/a;regsh export a /tmp/a"),
                ElementsAre("rm -f /tmp/a", "regsh export a /tmp/a"));
    EXPECT_THAT(plain_commands("regsh;regsh;rm\n"), ElementsAre("regsh", "regsh", "rm\n"));
    EXPECT_THAT(plain_commands("regsh a"), ElementsAre("regsh a"));
}

TEST_F(PlainCommands, AreNoneWhenOneIsNotPlain) {
    for (const char* line : {"", ";", "regsh;", ";regsh", "regsh;;regsh", "regsh; regsh",
                             "regsh ;regsh", "regsh\n;regsh", "regsh;ls", "ls;regsh",
                             "rm -f 'a';regsh", "rm -f a;regsh $a", "regsh;A=b regsh"}) {
        EXPECT_THAT(plain_commands(line), IsEmpty()) << line;
    }
}

TEST_F(SpawnStatus, HoldsTheExitCode) {
    Programs().PutProgram("regsh", "exit $1\n");
    EXPECT_EQ(spawn_status({"regsh", "0"}), 0);
    EXPECT_EQ(spawn_status({"regsh", "3"}), 3 << 8);
    EXPECT_EQ(spawn_status({"regsh", "127"}), 127 << 8);
    EXPECT_EQ(spawn_status({"regsh", "255"}), 255 << 8);
    EXPECT_TRUE(has_no_child());
}

TEST_F(SpawnStatus, OfAKilledProgramIsTheShellsAndSoIsTheMessage) {
    Programs().PutProgram("regsh", "ulimit -c 0\nkill -$1 $$\n");
    for (const auto& [name, signal, message] :
         {std::tuple("KILL", SIGKILL, "Killed\n"), std::tuple("TERM", SIGTERM, "Terminated\n"),
          std::tuple("SEGV", SIGSEGV, "Segmentation fault\n"), std::tuple("INT", SIGINT, ""),
          std::tuple("PIPE", SIGPIPE, "")}) {
        const Disposition standard(signal == SIGKILL ? SIGTERM : signal, SIG_DFL);
        EXPECT_EQ(captured_stderr([&, &program = name, &number = signal] {
                      EXPECT_EQ(spawn_status({"regsh", program}), ended_by(number));
                  }),
                  message);
    }
    EXPECT_TRUE(has_no_child());
}

TEST_F(SpawnStatus, ArgumentsArriveByteForByte) {
    Programs().PutProgram("regsh", "printf '%s|' $# \"$@\"\n");
    const std::string every = every_byte_but_nul();
    EXPECT_EQ(
        captured_stdout([&] {
            EXPECT_EQ(spawn_status({"regsh", "", every, "a b", "$(exit 1)`;*\n", "-n", ""}), 0);
        }),
        "6||" + every + "|a b|$(exit 1)`;*\n|-n||");
    EXPECT_EQ(captured_stdout([] { spawn_status({"regsh"}); }), "0|");
}

TEST_F(SpawnStatus, OutputIsInherited) {
    Programs().PutProgram("regsh", "echo out\necho no >&2\n");
    std::string output;
    EXPECT_EQ(captured_stderr([&] { output = captured_stdout([] { spawn_status({"regsh"}); }); }),
              "no\n");
    EXPECT_EQ(output, "out\n");
}

TEST_F(SpawnStatus, InputIsInherited) {
    Programs().PutProgram("regsh", "cat\n");
    Programs().Put("input", "some\ninput");
    const ReplacedDescriptor input(STDIN_FILENO, Programs().Path("input"));
    EXPECT_EQ(captured_stdout([] { spawn_status({"regsh"}); }), "some\ninput");
}

TEST_F(SpawnStatus, EnvironmentIsInherited) {
    Programs().PutProgram("regsh", "printf '%s' \"$SPAWNED_COMMAND\"\n");
    setenv("SPAWNED_COMMAND", "a value", 1);
    EXPECT_EQ(captured_stdout([] { spawn_status({"regsh"}); }), "a value");
    unsetenv("SPAWNED_COMMAND");
    EXPECT_EQ(captured_stdout([] { spawn_status({"regsh"}); }), "");
}

TEST_F(SpawnStatus, WorkingFolderIsInherited) {
    Programs().PutProgram("regsh", "cat here\n");
    Programs().Put("here", "found");
    const WorkingFolder folder(Programs().Path(""));
    EXPECT_EQ(captured_stdout([] { spawn_status({"regsh"}); }), "found");
}

TEST_F(SpawnStatus, NoShellIsBetweenTheProgramAndTheTool) {
    Programs().PutProgram("regsh", "printf $PPID\n");
    EXPECT_EQ(captured_stdout([] { spawn_status({"regsh"}); }), std::to_string(getpid()));
}

TEST_F(SpawnStatus, WaitsForTheEndOfTheProgram) {
    Programs().PutProgram("regsh", "exec >&- 2>&-\nsleep 0.1\ntouch $here/done\n");
    EXPECT_EQ(spawn_status({"regsh"}), 0);
    EXPECT_TRUE(std::filesystem::exists(Programs().Path("done")));
    EXPECT_TRUE(has_no_child());
}

TEST_F(SpawnStatus, WaitsForItsOwnProgramOnly) {
    Programs().PutProgram("regsh", "sleep 0.1\nexit 5\n");
    const pid_t other = fork();
    if (other == 0) {
        _exit(7);
    }
    EXPECT_EQ(spawn_status({"regsh"}), 5 << 8);
    int status = 0;
    EXPECT_EQ(waitpid(other, &status, 0), other);
    EXPECT_EQ(status, 7 << 8);
}

TEST_F(SpawnStatus, WaitsAgainWhenInterrupted) {
    Programs().PutProgram("regsh", "exit 6\n");
    failing_calls().interrupted_waits = 2;
    EXPECT_EQ(spawn_status({"regsh"}), 6 << 8);
    EXPECT_EQ(failing_calls().interrupted_waits, 0);
}

TEST_F(SpawnStatus, WaitsAgainWhenASignalIsTaken) {
    Programs().PutProgram("regsh", "kill -USR1 $PPID\nsleep 0.1\nexit 6\n");
    const Disposition taken(SIGUSR1, take_signal);
    signals_taken = 0;
    EXPECT_EQ(spawn_status({"regsh"}), 6 << 8);
    EXPECT_EQ(signals_taken, 1);
    EXPECT_TRUE(has_no_child());
}

TEST_F(SpawnStatus, WhenWaitingFailsIsMinusOne) {
    Programs().PutProgram("regsh", "exit 0\n");
    // Children of a process that ignores this signal leave nothing to wait for.
    const Disposition ignored(SIGCHLD, SIG_IGN);
    EXPECT_EQ(spawn_status({"regsh"}), -1);
}

TEST_F(SpawnStatus, OfAMissingProgramIsNone) {
    const SearchPath here(Programs().Path(""));
    EXPECT_EQ(spawn_status({"regsh", "a"}), std::nullopt);
    EXPECT_TRUE(has_no_child());
}

TEST_F(SpawnStatus, OfAFileThatMayNotRunIsNone) {
    Programs().Put("regsh", "#!/bin/sh\nexit 3\n");
    const SearchPath here(Programs().Path(""));
    EXPECT_EQ(spawn_status({"regsh", "a"}), std::nullopt);
    EXPECT_TRUE(has_no_child());
}

TEST_F(SpawnStatus, OfAScriptThatNamesNoInterpreterIsNone) {
    Programs().Put("regsh", "exit 3\n");
    std::filesystem::permissions(Programs().Path("regsh"), std::filesystem::perms::owner_all);
    EXPECT_EQ(spawn_status({"regsh", "a"}), std::nullopt);
    EXPECT_TRUE(has_no_child());
}

TEST_F(SpawnStatus, OfTooLongAWordIsNone) {
    Programs().PutProgram("regsh", "exit 3\n");
    EXPECT_EQ(spawn_status({"regsh", std::string(200000, 'x')}), std::nullopt);
    EXPECT_TRUE(has_no_child());
}

TEST_F(SpawnStatus, WhenNoProcessOrMemoryIsFreeIsMinusOne) {
    Programs().PutProgram("regsh", "exit 0\n");
    for (const int error : {EAGAIN, ENOMEM}) {
        spawn_calls().error = error;
        EXPECT_EQ(spawn_status({"regsh"}), -1) << error;
    }
}

TEST_F(SpawnStatus, WithAnyOtherErrorIsNone) {
    Programs().PutProgram("regsh", "exit 0\n");
    for (const int error : {ENOENT, EACCES, ENOEXEC, E2BIG, ENOTDIR, ELOOP, ETXTBSY, EIO, EMFILE}) {
        spawn_calls().error = error;
        EXPECT_EQ(spawn_status({"regsh"}), std::nullopt) << error;
    }
}

TEST_F(SpawnStatus, WithoutMemoryToPrepareIsNotStarted) {
    Programs().PutProgram("regsh", "exit 0\n");
    spawn_calls().refused = Step::kAttributes;
    errno = 0;
    EXPECT_EQ(spawn_status({"regsh"}), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(spawn_calls().made, 0);
}

TEST_F(SpawnStatus, KeyboardSignalsDoNotReachTheToolMeanwhile) {
    Programs().PutProgram("regsh", "kill -$1 $PPID\n");
    for (const auto& [signal, name] : {std::pair(SIGINT, "INT"), std::pair(SIGQUIT, "QUIT")}) {
        const Disposition taken(signal, take_signal);
        signals_taken = 0;
        EXPECT_EQ(spawn_status({"regsh", name}), 0) << name;
        EXPECT_EQ(signals_taken, 0) << name;
        raise(signal);
        EXPECT_EQ(signals_taken, 1) << name;
    }
}

TEST_F(SpawnStatus, OtherSignalsReachTheToolMeanwhile) {
    Programs().PutProgram("regsh", "kill -TERM $PPID\n");
    const Disposition taken(SIGTERM, take_signal);
    signals_taken = 0;
    EXPECT_EQ(spawn_status({"regsh"}), 0);
    EXPECT_EQ(signals_taken, 1);
}

TEST_F(SpawnStatus, KeyboardSignalsEndTheProgram) {
    Programs().PutProgram("regsh", "ulimit -c 0\nkill -$1 $$\nexit 9\n");
    for (void (*handler)(int) : {SIG_DFL, static_cast<void (*)(int)>(take_signal)}) {
        const Disposition interrupt(SIGINT, handler);
        const Disposition quit(SIGQUIT, handler);
        EXPECT_EQ(spawn_status({"regsh", "INT"}), ended_by(SIGINT));
        EXPECT_EQ(quietly_ended("QUIT"), ended_by(SIGQUIT));
    }
}

TEST_F(SpawnStatus, SignalsThatTheToolIgnoresAreIgnoredByTheProgram) {
    Programs().PutProgram("regsh", "ulimit -c 0\nkill -$1 $$\nexit 9\n");
    const Disposition terminal(SIGHUP, SIG_IGN);
    EXPECT_EQ(spawn_status({"regsh", "HUP"}), 9 << 8);
    {
        const Disposition interrupt(SIGINT, SIG_IGN);
        const Disposition quit(SIGQUIT, SIG_DFL);
        EXPECT_EQ(spawn_status({"regsh", "INT"}), 9 << 8);
        EXPECT_EQ(quietly_ended("QUIT"), ended_by(SIGQUIT));
    }
    const Disposition interrupt(SIGINT, SIG_DFL);
    const Disposition quit(SIGQUIT, SIG_IGN);
    EXPECT_EQ(spawn_status({"regsh", "INT"}), ended_by(SIGINT));
    EXPECT_EQ(spawn_status({"regsh", "QUIT"}), 9 << 8);
}

TEST_F(SpawnStatus, DispositionsAreRestored) {
    Programs().PutProgram("regsh", "exit 0\n");
    const Disposition interrupt(SIGINT, take_signal, SA_RESTART);
    const Disposition quit(SIGQUIT, SIG_DFL);
    const auto expect_restored = [] {
        EXPECT_EQ(disposition(SIGINT).sa_handler, take_signal);
        EXPECT_EQ(disposition(SIGINT).sa_flags & SA_RESTART, SA_RESTART);
        EXPECT_EQ(disposition(SIGQUIT).sa_handler, SIG_DFL);
    };
    EXPECT_EQ(spawn_status({"regsh"}), 0);
    expect_restored();
    for (const int error : {ENOENT, EAGAIN}) {
        spawn_calls().error = error;
        EXPECT_NE(spawn_status({"regsh"}), 0);
        expect_restored();
    }
}

TEST_F(SpawnStatus, SignalMaskIsRestored) {
    Programs().PutProgram("regsh", "exit 0\n");
    for (const std::vector<int>& blocked :
         {std::vector<int>{}, {SIGUSR1}, {SIGUSR1, SIGCHLD}, {SIGINT}}) {
        const BlockedSignals mask(blocked);
        const std::vector<int> before = blocked_signals();
        EXPECT_EQ(spawn_status({"regsh"}), 0);
        EXPECT_EQ(blocked_signals(), before);
        for (const int error : {ENOENT, EAGAIN}) {
            spawn_calls().error = error;
            EXPECT_NE(spawn_status({"regsh"}), 0);
            EXPECT_EQ(blocked_signals(), before);
        }
        spawn_calls().error = 0;
    }
}

TEST_F(SpawnStatus, NoSignalIsBlockedInTheProgram) {
    Programs().PutProgram("regsh", "kill -USR1 $$\nexit 9\n");
    const BlockedSignals mask({SIGUSR1});
    EXPECT_EQ(quietly_ended("USR1"), ended_by(SIGUSR1));
}

TEST_F(SpawnStatus, NewsOfChildrenReachTheToolAfterwards) {
    std::filesystem::remove(kMark);
    Programs().PutProgram("regsh",
                          "kill -CHLD $PPID\nsleep 0.1\ntouch " + std::string(kMark) + "\n");
    const Disposition taken(SIGCHLD, look_for_mark);
    mark_was_there = -1;
    EXPECT_EQ(spawn_status({"regsh"}), 0);
    EXPECT_EQ(mark_was_there, 1);
    std::filesystem::remove(kMark);
}

TEST_F(SpawnStatus, NewsOfChildrenReachTheProgram) {
    Programs().PutProgram("regsh", "trap 'exit 9' CHLD\nkill -CHLD $$\nexit 0\n");
    EXPECT_EQ(spawn_status({"regsh"}), 9 << 8);
}

TEST_F(SpawnStatus, NothingStaysOpen) {
    Programs().PutProgram("regsh", kListDescriptors);
    const std::vector<int> before = open_descriptors();
    std::string expected;
    EXPECT_EQ(captured_stdout([&] {
                  expected = inheritable_descriptors();
                  spawn_status({"regsh"});
              }),
              expected);
    spawn_calls().error = ENOENT;
    spawn_status({"regsh"});
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(SpawnedStream, HasWhatTheProgramPrints) {
    Programs().PutProgram("regsh", "printf 'one\\n\\0two'\n");
    EXPECT_EQ(spawned_text({"regsh"}), std::string("one\n\0two", 8));
    EXPECT_TRUE(has_no_child());
}

TEST_F(SpawnedStream, OfAMissingProgramWaitsForNoOtherChild) {
    const pid_t other = fork();
    if (other == 0) {
        _exit(7);
    }
    {
        const SpawnedOutput output({"no-such-program"});
        EXPECT_EQ(output.Stream(), nullptr);
    }
    int status = 0;
    EXPECT_EQ(waitpid(other, &status, 0), other);
    EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST_F(SpawnedStream, OfNoOutput) {
    Programs().PutProgram("regsh", "exit 3\n");
    EXPECT_EQ(spawned_text({"regsh"}), "");
    EXPECT_TRUE(has_no_child());
}

TEST_F(SpawnedStream, OfMuchOutput) {
    Programs().PutProgram("regsh", "printf '%01000000d' 7\n");
    EXPECT_EQ(spawned_text({"regsh"}), std::string(999999, '0') + "7");
}

TEST_F(SpawnedStream, ArgumentsArriveByteForByte) {
    Programs().PutProgram("regsh", "printf '%s|' $# \"$@\"\n");
    const std::string every = every_byte_but_nul();
    EXPECT_EQ(spawned_text({"regsh", every, "", "a b"}), "3|" + every + "||a b|");
    EXPECT_EQ(spawned_text({"regsh"}), "0|");
}

TEST_F(SpawnedStream, StandardErrorIsInherited) {
    Programs().PutProgram("regsh", "echo out\necho no >&2\n");
    std::string output;
    EXPECT_EQ(captured_stderr([&] { output = spawned_text({"regsh"}); }), "no\n");
    EXPECT_EQ(output, "out\n");
}

TEST_F(SpawnedStream, InputIsInherited) {
    Programs().PutProgram("regsh", "cat\n");
    Programs().Put("input", "some\ninput");
    const ReplacedDescriptor input(STDIN_FILENO, Programs().Path("input"));
    EXPECT_EQ(spawned_text({"regsh"}), "some\ninput");
}

TEST_F(SpawnedStream, EnvironmentIsInherited) {
    Programs().PutProgram("regsh", "printf '%s' \"$SPAWNED_COMMAND\"\n");
    setenv("SPAWNED_COMMAND", "a value", 1);
    EXPECT_EQ(spawned_text({"regsh"}), "a value");
    unsetenv("SPAWNED_COMMAND");
    EXPECT_EQ(spawned_text({"regsh"}), "");
}

TEST_F(SpawnedStream, SignalsReachTheToolMeanwhile) {
    Programs().PutProgram("regsh", "kill -INT $PPID\necho done\n");
    const Disposition taken(SIGINT, take_signal, SA_RESTART);
    signals_taken = 0;
    EXPECT_EQ(spawned_text({"regsh"}), "done\n");
    EXPECT_EQ(signals_taken, 1);
}

TEST_F(SpawnedStream, OfAKilledProgramEndsThere) {
    Programs().PutProgram("regsh", "echo out\nkill -KILL $$\necho more\n");
    EXPECT_EQ(captured_stderr([] { EXPECT_EQ(spawned_text({"regsh"}), "out\n"); }), "Killed\n");
    EXPECT_TRUE(has_no_child());
}

TEST_F(SpawnedStream, NoSignalIsBlockedInTheProgram) {
    Programs().PutProgram("regsh", "kill -USR1 $$\necho blocked\n");
    const BlockedSignals mask({SIGUSR1});
    std::string text;
    captured_stderr([&] { text = spawned_text({"regsh"}); });
    EXPECT_EQ(text, "");
}

TEST_F(SpawnedStream, EndsAfterTheProgram) {
    Programs().PutProgram("regsh", "echo out\nexec >&-\nsleep 0.1\ntouch $here/done\n");
    EXPECT_EQ(spawned_text({"regsh"}), "out\n");
    EXPECT_TRUE(std::filesystem::exists(Programs().Path("done")));
    EXPECT_TRUE(has_no_child());
}

TEST_F(SpawnedStream, WaitsAgainWhenInterrupted) {
    Programs().PutProgram("regsh", "exec >&-\nsleep 0.1\ntouch $here/done\n");
    failing_calls().interrupted_waits = 2;
    EXPECT_EQ(spawned_text({"regsh"}), "");
    EXPECT_EQ(failing_calls().interrupted_waits, 0);
    EXPECT_TRUE(std::filesystem::exists(Programs().Path("done")));
    EXPECT_TRUE(has_no_child());
}

TEST_F(SpawnedStream, NeedNotBeReadToItsEnd) {
    Programs().PutProgram("regsh", "exec yes word\n");
    {
        const SpawnedOutput output({"regsh"});
        ASSERT_NE(output.Stream(), nullptr);
        EXPECT_EQ(std::fgetc(output.Stream()), 'w');
    }
    EXPECT_TRUE(has_no_child());
    { const SpawnedOutput unread({"regsh"}); }
    EXPECT_TRUE(has_no_child());
}

TEST_F(SpawnedStream, NeedsTheShellWhenTheProgramCannotRun) {
    const SearchPath here(Programs().Path(""));
    const std::vector<int> before = open_descriptors();
    const auto expect_shell_needed = [] {
        const SpawnedOutput output({"regsh", "a"});
        EXPECT_TRUE(output.NeedsShell());
        EXPECT_EQ(output.Stream(), nullptr);
    };
    expect_shell_needed();  // nothing of that name
    Programs().Put("regsh", "exit 3\n");
    expect_shell_needed();  // not executable
    std::filesystem::permissions(Programs().Path("regsh"), std::filesystem::perms::owner_all);
    expect_shell_needed();  // no interpreter named
    EXPECT_TRUE(has_no_child());
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(SpawnedStream, NeedsNoShellWhenTheProgramRuns) {
    Programs().PutProgram("regsh", "exit 127\n");
    const SpawnedOutput output({"regsh"});
    EXPECT_FALSE(output.NeedsShell());
    EXPECT_NE(output.Stream(), nullptr);
}

TEST_F(SpawnedStream, IsNullWhenNoProcessOrMemoryIsFree) {
    Programs().PutProgram("regsh", "echo out\n");
    const std::vector<int> before = open_descriptors();
    for (const int error : {EAGAIN, ENOMEM}) {
        spawn_calls().error = error;
        const SpawnedOutput output({"regsh"});
        EXPECT_EQ(output.Stream(), nullptr) << error;
        EXPECT_FALSE(output.NeedsShell()) << error;
        EXPECT_EQ(open_descriptors(), before) << error;
    }
}

TEST_F(SpawnedStream, IsNullWithoutMemoryToPrepare) {
    Programs().PutProgram("regsh", "echo out\n");
    const std::vector<int> before = open_descriptors();
    for (const Step step : {Step::kAttributes, Step::kActions, Step::kRedirection}) {
        SCOPED_TRACE(static_cast<int>(step));
        spawn_calls().refused = step;
        const SpawnedOutput output({"regsh"});
        EXPECT_EQ(output.Stream(), nullptr);
        EXPECT_FALSE(output.NeedsShell());
        EXPECT_EQ(open_descriptors(), before);
    }
    EXPECT_EQ(spawn_calls().made, 0);
}

TEST_F(SpawnedStream, IsNullWithoutDescriptors) {
    Programs().PutProgram("regsh", "echo out\n");
    std::FILE* stream = stderr;
    bool needs_shell = true;
    {
        const NoMoreDescriptors limit;
        const SpawnedOutput output({"regsh"});
        stream = output.Stream();
        needs_shell = output.NeedsShell();
    }
    EXPECT_EQ(stream, nullptr);
    EXPECT_FALSE(needs_shell);
    EXPECT_EQ(spawn_calls().made, 0);
}

TEST_F(SpawnedStream, IsNullWithoutAStreamAndNothingStaysBehind) {
    Programs().PutProgram("regsh", "sleep 0.1\ntouch $here/done\n");
    const std::vector<int> before = open_descriptors();
    failing_calls().fdopen = true;
    {
        const SpawnedOutput output({"regsh"});
        EXPECT_EQ(output.Stream(), nullptr);
        EXPECT_FALSE(output.NeedsShell());
        EXPECT_EQ(open_descriptors(), before);
    }
    EXPECT_TRUE(std::filesystem::exists(Programs().Path("done")));
    EXPECT_TRUE(has_no_child());
}

TEST_F(SpawnedStream, TakesOneDescriptorAndGivesItBack) {
    Programs().PutProgram("regsh", "echo out\n");
    const std::vector<int> before = open_descriptors();
    {
        const SpawnedOutput output({"regsh"});
        ASSERT_NE(output.Stream(), nullptr);
        EXPECT_EQ(open_descriptors().size(), before.size() + 1);
        const SpawnedOutput second({"regsh"});
        ASSERT_NE(second.Stream(), nullptr);
        EXPECT_EQ(open_descriptors().size(), before.size() + 2);
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(SpawnedStream, ProgramGetsNoMoreThanItsStandardStreams) {
    Programs().PutProgram("regsh", kListDescriptors);
    const std::string expected = inheritable_descriptors();
    const SpawnedOutput other({"regsh"});
    ASSERT_NE(other.Stream(), nullptr);
    EXPECT_EQ(spawned_text({"regsh"}), expected);
    EXPECT_EQ(rest_of(other.Stream()), expected);
}

TEST_F(SpawnedStream, WhenStandardOutputIsClosed) {
    Programs().PutProgram("regsh", "echo out\n");
    std::string text;
    {
        const ReplacedDescriptor output(STDOUT_FILENO);
        text = spawned_text({"regsh"});
    }
    EXPECT_EQ(text, "out\n");
}

TEST_F(SpawnedStream, WhenThePipeEndsOnStandardOutput) {
    Programs().PutProgram("regsh", "echo out\n");
    std::string text;
    {
        const ReplacedDescriptor input(STDIN_FILENO);
        const ReplacedDescriptor output(STDOUT_FILENO);
        text = spawned_text({"regsh"});
    }
    EXPECT_EQ(text, "out\n");
}

// All that a caller of the command runner sees of a command line.
struct Answer {
    int status = 0;
    std::string first_line;
    std::vector<std::string> lines;
    // Standard output of the command whose status is asked for.
    std::string printed;
    // Standard error of each of the three.
    std::vector<std::string> errors;

    bool operator==(const Answer& other) const = default;
};

void PrintTo(const Answer& answer, std::ostream* out) {
    *out << answer.status << testing::PrintToString(answer.first_line)
         << testing::PrintToString(answer.lines) << testing::PrintToString(answer.printed)
         << testing::PrintToString(answer.errors);
}

Answer answer_to(const std::string& line) {
    Answer answer;
    answer.errors = {
        captured_stderr([&] {
            answer.printed = captured_stdout([&] { answer.status = command_status(line); });
        }),
        captured_stderr([&] { EXPECT_TRUE(run_command_first_line(line, answer.first_line)); }),
        captured_stderr([&] { EXPECT_TRUE(read_all_lines(line, answer.lines)); })};
    return answer;
}

// The answer to a line of plain words, and that the shell gives the same one.
Answer common_answer(const std::string& line) {
    spawn_calls() = SpawnCalls{};
    Answer answer = answer_to(line);
    EXPECT_EQ(spawn_calls().made, 3) << line;
    for (const std::string& shell_line : {line + " ", "\\" + line}) {
        spawn_calls() = SpawnCalls{};
        EXPECT_EQ(answer_to(shell_line), answer) << shell_line;
        EXPECT_EQ(spawn_calls().made, 0) << shell_line;
    }
    EXPECT_TRUE(has_no_child());
    return answer;
}

TEST_F(SpawnOrShell, GivesTheOutput) {
    Programs().PutProgram("regsh", "echo no >&2\necho \" $* \"\nprintf '\\nlast'\n");
    const Answer answer = common_answer("regsh get root/a");
    EXPECT_EQ(answer.status, 0);
    EXPECT_EQ(answer.first_line, "get root/a");
    EXPECT_THAT(answer.lines, ElementsAre(" get root/a \n", "\n", "last"));
    EXPECT_EQ(answer.printed, " get root/a \n\nlast");
    EXPECT_THAT(answer.errors, Each("no\n"));
}

TEST_F(SpawnOrShell, GivesTheArguments) {
    Programs().PutProgram("regsh", "printf '%s\\n' \"${0##*/}\" $# \"$@\"\n");
    EXPECT_THAT(common_answer("regsh").lines, ElementsAre("regsh\n", "0\n"));
    const std::string plain(kPlain);
    EXPECT_THAT(common_answer("regsh -n " + plain + " A=b --").lines,
                ElementsAre("regsh\n", "4\n", "-n\n", plain + "\n", "A=b\n", "--\n"));
}

TEST_F(SpawnOrShell, GivesTheExitCode) {
    Programs().PutProgram("regsh", "exit $1\n");
    for (const int code : {0, 1, 3, 126, 127, 128, 255}) {
        EXPECT_EQ(common_answer("regsh " + std::to_string(code)).status, code << 8);
    }
}

TEST_F(SpawnOrShell, GivesTheSignal) {
    Programs().PutProgram("regsh", "ulimit -c 0\necho out\nkill -$1 $$\n");
    for (const auto& [name, signal, message] :
         {std::tuple("KILL", SIGKILL, "Killed\n"), std::tuple("TERM", SIGTERM, "Terminated\n"),
          std::tuple("SEGV", SIGSEGV, "Segmentation fault\n"), std::tuple("PIPE", SIGPIPE, "")}) {
        const Answer answer = common_answer(std::string("regsh ") + name);
        EXPECT_EQ(answer.status, ended_by(signal));
        EXPECT_THAT(answer.lines, ElementsAre("out\n"));
        EXPECT_THAT(answer.errors, Each(message));
    }
}

TEST_F(SpawnedStream, OfWhichThereIsNoMemoryLeavesNothingOpen) {
    Programs().PutProgram("regsh", "exit 0\n");
    const Words words = {"regsh", "get", "a"};
    const std::vector<int> before = open_descriptors();
    int refused = 0;
    for (long most = 0; most <= refused; ++most) {
        allocations_left = most;
        try {
            const SpawnedOutput output(words);
            allocations_left = -1;
            EXPECT_NE(output.Stream(), nullptr);
        } catch (const std::bad_alloc&) {
            allocations_left = -1;
            ++refused;
        }
        EXPECT_EQ(open_descriptors(), before);
    }
    EXPECT_GE(refused, 1);
    EXPECT_TRUE(has_no_child());
}

TEST_F(SpawnOrShell, GivesLongLinesAndNul) {
    Programs().PutProgram("regsh", "printf '%03000d\\nab\\0cd\\n' 7\n");
    const Answer answer = common_answer("regsh");
    EXPECT_EQ(answer.first_line, std::string(1022, '0'));
    EXPECT_THAT(answer.lines, ElementsAre(std::string(1023, '0'), std::string(1023, '0'),
                                          std::string(953, '0') + "7\n", "ab"));
}

TEST_F(SpawnOrShell, GivesNothing) {
    Programs().PutProgram("regsh", "exit 0\n");
    EXPECT_EQ(common_answer("regsh a"), (Answer{0, "", {}, "", {"", "", ""}}));
}

TEST_F(SpawnOrShell, LineFeedBehindTheLastWordIsNoPartOfIt) {
    Programs().PutProgram("regsh", "printf '%s|' \"$@\"\n");
    const Answer answer = answer_to("regsh a b\n");
    EXPECT_EQ(spawn_calls().made, 3);
    EXPECT_EQ(answer, answer_to("regsh a b \n"));
    EXPECT_EQ(answer.first_line, "a|b|");
}

TEST_F(SpawnOrShell, SaysThatTheProgramIsMissing) {
    const SearchPath here(Programs().Path(""));
    const std::string text = "sh: 1: regsh: not found\n";
    EXPECT_EQ(common_answer("regsh get a"), (Answer{127 << 8, "", {}, "", {text, text, text}}));
}

TEST_F(SpawnOrShell, SaysThatTheProgramMayNotRun) {
    Programs().Put("regsh", "#!/bin/sh\nexit 3\n");
    const SearchPath here(Programs().Path(""));
    const std::string text = "sh: 1: regsh: Permission denied\n";
    EXPECT_EQ(common_answer("regsh get a"), (Answer{127 << 8, "", {}, "", {text, text, text}}));
}

TEST_F(SpawnOrShell, SaysThatTheProgramIsAFolder) {
    std::filesystem::create_directory(Programs().Path("regsh"));
    const SearchPath here(Programs().Path(""));
    const std::string text = "sh: 1: regsh: Permission denied\n";
    EXPECT_EQ(common_answer("regsh get a"), (Answer{127 << 8, "", {}, "", {text, text, text}}));
}

TEST_F(SpawnOrShell, SaysThatTheInterpreterIsMissing) {
    Programs().Put("regsh", "#!/no/such/interpreter\n");
    std::filesystem::permissions(Programs().Path("regsh"), std::filesystem::perms::owner_all);
    const SearchPath here(Programs().Path(""));
    const Answer answer = common_answer("regsh get a");
    EXPECT_EQ(answer.status, 127 << 8);
    EXPECT_THAT(answer.errors, Each("sh: 1: regsh: not found\n"));
}

TEST_F(SpawnOrShell, SaysThatTheInterpreterMayNotRun) {
    Programs().Put("interpreter", "");
    Programs().Put("regsh", "#!" + Programs().Path("interpreter") + "\n");
    std::filesystem::permissions(Programs().Path("regsh"), std::filesystem::perms::owner_all);
    const SearchPath here(Programs().Path(""));
    const std::string text = "sh: 1: regsh: Permission denied\n";
    EXPECT_EQ(common_answer("regsh get a"), (Answer{126 << 8, "", {}, "", {text, text, text}}));
}

TEST_F(SpawnOrShell, RunsAScriptThatNamesNoInterpreter) {
    Programs().Put("regsh", "echo \"${0##*/} $*\"\nexit 3\n");
    std::filesystem::permissions(Programs().Path("regsh"), std::filesystem::perms::owner_all);
    const Answer answer = common_answer("regsh get a");
    EXPECT_EQ(answer.status, 3 << 8);
    EXPECT_THAT(answer.lines, ElementsAre("regsh get a\n"));
}

TEST_F(SpawnOrShell, RunsAnEmptyFile) {
    Programs().Put("regsh", "");
    std::filesystem::permissions(Programs().Path("regsh"), std::filesystem::perms::owner_all);
    EXPECT_EQ(common_answer("regsh get a"), (Answer{0, "", {}, "", {"", "", ""}}));
}

TEST_F(SpawnOrShell, RunsTheFirstProgramOnTheSearchPathThatMayRun) {
    const std::string folder = Programs().Path("");
    for (const std::string name : {"a", "b", "c", "d"}) {
        std::filesystem::create_directory(folder + name);
    }
    Programs().Put("a/regsh", "#!/bin/sh\necho a\n");
    std::filesystem::create_directory(folder + "b/regsh");
    Programs().PutProgram("c/regsh", "echo c\n");
    Programs().PutProgram("d/regsh", "echo d\n");
    for (const char* first : {"/no/such/folder", "a", "b", "a/regsh", "a:b"}) {
        const std::string elements = *first == '/' ? first : folder + first;
        const SearchPath path(elements + ":" + folder + "b:" + folder + "c/:" + folder + "d");
        EXPECT_EQ(common_answer("regsh").first_line, "c") << first;
    }
    const SearchPath path(folder + "d:" + folder + "c");
    EXPECT_EQ(common_answer("regsh").first_line, "d");
}

TEST_F(SpawnOrShell, RunsTheFirstFileOnTheSearchPathAlsoWithoutInterpreter) {
    const std::string folder = Programs().Path("");
    for (const std::string name : {"a", "b"}) {
        std::filesystem::create_directory(folder + name);
    }
    Programs().Put("a/regsh", "echo a\n");
    std::filesystem::permissions(folder + "a/regsh", std::filesystem::perms::owner_all);
    Programs().PutProgram("b/regsh", "echo b\n");
    const SearchPath path(folder + "a:" + folder + "b");
    EXPECT_EQ(common_answer("regsh").first_line, "a");
}

TEST_F(SpawnOrShell, SearchesTheWorkingFolderForAnEmptyElement) {
    std::filesystem::create_directory(Programs().Path("a"));
    Programs().PutProgram("a/regsh", "echo \"$0\"\n");
    const WorkingFolder folder(Programs().Path("a"));
    for (const char* value : {"", ":", ":/no/such", "/no/such:", "/no/such::/nor/such"}) {
        const SearchPath path(value);
        const Answer answer = common_answer("regsh get");
        EXPECT_EQ(answer.first_line, "regsh") << '[' << value << ']';
        EXPECT_EQ(answer.status, 0) << '[' << value << ']';
    }
    const SearchPath elsewhere("/no/such");
    EXPECT_EQ(common_answer("regsh get").status, 127 << 8);
}

TEST_F(SpawnOrShell, SearchesBelowTheWorkingFolder) {
    std::filesystem::create_directory(Programs().Path("a"));
    Programs().PutProgram("a/regsh", "echo \"$0\"\n");
    const WorkingFolder folder(Programs().Path(""));
    const SearchPath path("a");
    EXPECT_EQ(common_answer("regsh get").first_line, "a/regsh");
}

TEST_F(SpawnOrShell, LeavesThePathThatIsNotSetToTheShell) {
    Programs().PutProgram("regsh", "echo found\n");
    const SearchPath none;
    const int status = std::system("regsh 2>/dev/null");
    captured_stderr([&] { EXPECT_EQ(command_status("regsh"), status); });
    EXPECT_EQ(spawn_calls().made, 0);
}

TEST_F(SpawnOrShell, RemovesFiles) {
    Programs().Put("one", "");
    Programs().Put("two", "");
    EXPECT_EQ(command_status("rm -f " + Programs().Path("one")), 0);
    EXPECT_EQ(spawn_calls().made, 1);
    EXPECT_EQ(command_status("rm -f " + Programs().Path("two") + " "), 0);
    EXPECT_EQ(spawn_calls().made, 1);
    EXPECT_FALSE(std::filesystem::exists(Programs().Path("one")));
    EXPECT_FALSE(std::filesystem::exists(Programs().Path("two")));
    const Answer answer = common_answer("rm " + Programs().Path("one"));
    EXPECT_EQ(answer.status, 1 << 8);
    EXPECT_THAT(answer.errors, Each(testing::StartsWith("rm: ")));
}

TEST_F(SpawnOrShell, LeavesEveryOtherLineToTheShell) {
    Programs().PutProgram("regsh", "printf '%s|' \"$@\"\n");
    for (const auto& [line, first] :
         {std::pair("regsh \"\"", "|"), std::pair("regsh 'a b'", "a b|"),
          std::pair("exec regsh a", "a|"), std::pair("A=b; regsh $A", "b|"),
          std::pair("regsh a; echo b", "a|b"), std::pair("regsh a # b", "a|")}) {
        std::string output;
        EXPECT_TRUE(run_command_first_line(line, output));
        EXPECT_EQ(output, first) << line;
    }
    EXPECT_EQ(spawn_calls().made, 0);
}

TEST_F(SpawnOrShell, FailsWithoutProcesses) {
    Programs().PutProgram("regsh", "echo out\n");
    spawn_calls().error = EAGAIN;
    EXPECT_EQ(captured_stdout([] { EXPECT_EQ(command_status("regsh"), -1); }), "");
    std::string text = "untouched";
    EXPECT_FALSE(run_command_first_line("regsh", text));
    EXPECT_FALSE(read_first_line("regsh", text));
    EXPECT_EQ(text, "untouched");
    std::vector<std::string> lines = {"untouched"};
    EXPECT_FALSE(read_all_lines("regsh", lines));
    EXPECT_THAT(lines, ElementsAre("untouched"));
    EXPECT_EQ(spawn_calls().made, 4);
}

TEST_F(SpawnOrShell, FailsWithoutDescriptors) {
    Programs().PutProgram("regsh", "echo out\n");
    for (const char* line : {"regsh", "regsh "}) {
        std::string text = "untouched";
        std::vector<std::string> lines = {"untouched"};
        bool any_started = true;
        {
            const NoMoreDescriptors limit;
            any_started = run_command_first_line(line, text) || read_first_line(line, text) ||
                          read_all_lines(line, lines);
        }
        EXPECT_FALSE(any_started);
        EXPECT_EQ(text, "untouched");
        EXPECT_THAT(lines, ElementsAre("untouched"));
    }
}

TEST_F(SpawnOrShell, FailsWhenNothingIsLeftToWaitFor) {
    Programs().PutProgram("regsh", "exit 0\n");
    const Disposition ignored(SIGCHLD, SIG_IGN);
    EXPECT_EQ(command_status("regsh"), -1);
    EXPECT_EQ(spawn_calls().made, 1);
    EXPECT_EQ(command_status("regsh "), -1);
    EXPECT_EQ(spawn_calls().made, 1);
}

TEST_F(SpawnOrShell, EndsAfterTheProgram) {
    Programs().PutProgram("regsh", "echo out\nexec >&-\nsleep 0.1\ntouch $here/done\n");
    std::string output;
    EXPECT_TRUE(run_command_first_line("regsh", output));
    EXPECT_EQ(output, "out");
    EXPECT_TRUE(std::filesystem::exists(Programs().Path("done")));
    EXPECT_TRUE(has_no_child());
}

TEST_F(SpawnOrShell, DoesNotReadEndlessOutput) {
    Programs().PutProgram("regsh", "exec yes word\n");
    std::string output;
    EXPECT_TRUE(run_command_first_line("regsh", output));
    EXPECT_EQ(output, "word");
    EXPECT_EQ(spawn_calls().made, 1);
    EXPECT_TRUE(has_no_child());
}

TEST_F(SpawnOrShell, NothingStaysOpen) {
    Programs().PutProgram("regsh", "echo out\n");
    const std::vector<int> before = open_descriptors();
    common_answer("regsh");
    {
        const SearchPath nowhere("/no/such");
        common_answer("regsh");
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(SpawnOrShell, CommandsOfALineRunInTurnAndTheLastGivesTheStatus) {
    Programs().PutProgram("regsh", "echo \"regsh $*\"\nexit $1\n");
    Programs().PutProgram("rm", "echo \"rm $*\"\nexit 1\n");
    spawn_calls() = {};
    int status = -1;
    EXPECT_EQ(captured_stdout([&] { status = command_status("rm -f a;regsh 3 b"); }),
              "rm -f a\nregsh 3 b\n");
    EXPECT_EQ(status, 3 << 8);
    EXPECT_EQ(captured_stdout([&] { status = command_status("regsh 3;rm a;regsh 0"); }),
              "regsh 3\nrm a\nregsh 0\n");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(spawn_calls().made, 5);
}

TEST_F(SpawnOrShell, TheShellTakesOverWhereAProgramIsMissing) {
    Programs().PutProgram("rm", "echo \"rm $*\"\n");
    const SearchPath here(Programs().Path(""));
    std::string told;
    int status = -1;
    EXPECT_EQ(captured_stdout([&] {
                  told = captured_stderr([&] { status = command_status("rm a;regsh b;rm c"); });
              }),
              "rm a\nrm c\n");
    EXPECT_EQ(told, "sh: 1: regsh: not found\n");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(captured_stderr([&] { status = command_status("rm a;regsh b"); }),
              "sh: 1: regsh: not found\n");
    EXPECT_EQ(status, 127 << 8);
}

TEST_F(SpawnOrShell, WhoseEndCannotBeWaitedForStopsNoLine) {
    Programs().PutProgram("regsh", "echo \"regsh $*\"\n");
    const auto before = ::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(captured_stdout([] { EXPECT_EQ(command_status("regsh a;regsh b"), -1); }),
              "regsh a\nregsh b\n");
    ::signal(SIGCHLD, before);
}

TEST_F(SpawnOrShell, NothingMoreOfALineRunsOnceNothingCanBeStarted) {
    Programs().PutProgram("regsh", "echo \"regsh $*\"\n");
    spawn_calls() = {.made = 0, .error = EAGAIN};
    EXPECT_EQ(captured_stdout([] { EXPECT_EQ(command_status("regsh a;regsh b"), -1); }), "");
    EXPECT_EQ(spawn_calls().made, 1);
    spawn_calls() = {};
}

}  // namespace
