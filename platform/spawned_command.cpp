#include "platform/spawned_command.h"

#include "common/messages.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view kPlainCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_./:@%+=,-";
constexpr std::array<std::string_view, 2> kPrograms = {"regsh", "rm"};

constexpr int kEndedBySignal = 128;  // added to the signal's number, it is the shell's exit status

// The signals that a keyboard sends.
constexpr std::array kKeyboardSignals = {SIGINT, SIGQUIT};

// Keeps the keyboard's signals, and the news of the child's end, away from the tool while a program
// runs, as system() does.
class QuietSignals {
public:
    QuietSignals() {
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        for (std::size_t signal = 0; signal < kKeyboardSignals.size(); ++signal) {
            ::sigaction(kKeyboardSignals[signal], &ignore, &before_[signal]);
        }
        sigset_t child;
        ::sigemptyset(&child);
        ::sigaddset(&child, SIGCHLD);
        ::sigprocmask(SIG_BLOCK, &child, &mask_);
    }
    QuietSignals(const QuietSignals&) = delete;
    QuietSignals& operator=(const QuietSignals&) = delete;
    ~QuietSignals() {
        for (std::size_t signal = 0; signal < kKeyboardSignals.size(); ++signal) {
            ::sigaction(kKeyboardSignals[signal], &before_[signal], nullptr);
        }
        ::sigprocmask(SIG_SETMASK, &mask_, nullptr);
    }

    // Those of them that the program takes as it is told by default, as the tool did before.
    sigset_t Defaults() const {
        sigset_t defaults;
        ::sigemptyset(&defaults);
        for (std::size_t signal = 0; signal < kKeyboardSignals.size(); ++signal) {
            if (before_[signal].sa_handler != SIG_IGN) {
                ::sigaddset(&defaults, kKeyboardSignals[signal]);
            }
        }
        return defaults;
    }

private:
    std::array<struct sigaction, kKeyboardSignals.size()> before_{};
    sigset_t mask_{};
};

// One end of a pipe, closed with its owner.
class PipeEnd {
public:
    explicit PipeEnd(int descriptor) : descriptor_(descriptor) {}
    PipeEnd(const PipeEnd&) = delete;
    PipeEnd& operator=(const PipeEnd&) = delete;
    ~PipeEnd() {
        if (descriptor_) {
            ::close(*descriptor_);
        }
    }

    int Descriptor() const { return *descriptor_; }
    // A stream that owns the end from now on; null when there is no memory for it.
    std::FILE* Stream() {
        std::FILE* stream = ::fdopen(*descriptor_, "r");
        if (stream != nullptr) {
            descriptor_.reset();
        }
        return stream;
    }

private:
    std::optional<int> descriptor_;
};

// What a program's descriptors become before it starts.
class FileActions {
public:
    FileActions() : error_(::posix_spawn_file_actions_init(&actions_)) {}
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;
    ~FileActions() {
        if (error_ == 0) {
            ::posix_spawn_file_actions_destroy(&actions_);
        }
    }

    const posix_spawn_file_actions_t* Get() const { return &actions_; }
    // 0, or the error that says why it cannot be done.
    int Redirect(int from, int to) {
        return error_ != 0 ? error_ : ::posix_spawn_file_actions_adddup2(&actions_, from, to);
    }

private:
    posix_spawn_file_actions_t actions_{};
    int error_;
};

sigset_t no_signals() {
    sigset_t none;
    ::sigemptyset(&none);
    return none;
}

// Starts the program with the default for `defaults` and, as the shell does, with no signal
// blocked. 0, or the error that says why it did not start.
int spawn(const std::vector<std::string>& words, const posix_spawn_file_actions_t* actions,
          const sigset_t& defaults, pid_t& process) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawnattr_t attributes;
    if (const int error = ::posix_spawnattr_init(&attributes); error != 0) {
        return error;
    }
    const sigset_t none = no_signals();
    ::posix_spawnattr_setsigdefault(&attributes, &defaults);
    ::posix_spawnattr_setsigmask(&attributes, &none);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    const int error = ::posix_spawnp(&process, arguments.front(), actions, &attributes,
                                     arguments.data(), environ);
    ::posix_spawnattr_destroy(&attributes);
    return error;
}

// What is short for a moment would be so for the shell too; the rest is about the program.
bool concerns_the_program(int error) {
    return error != EAGAIN && error != ENOMEM;
}

// Says what the shell says of a program that a signal has ended. Returns the status that the shell
// ends with.
int report_end(int status) {
    if (!WIFSIGNALED(status)) {
        return status;
    }
    const int signal = WTERMSIG(status);
    if (signal != SIGINT && signal != SIGPIPE) {
        print_message(WCOREDUMP(status) ? "%s (core dumped)\n" : "%s\n", ::strsignal(signal));
    }
    return W_EXITCODE(kEndedBySignal + signal, 0);
}

int wait_for(pid_t process) {
    int status = 0;
    while (::waitpid(process, &status, 0) == -1) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return report_end(status);
}

}  // namespace

std::vector<std::string> plain_commands(const std::string& line) {
    std::vector<std::string> commands;
    for (std::size_t begin = 0; begin <= line.size();) {
        const std::size_t end = std::min(line.find(';', begin), line.size());
        commands.push_back(line.substr(begin, end - begin));
        const bool is_last = end == line.size();
        if (!plain_words(commands.back()) || (!is_last && commands.back().back() == '\n')) {
            return {};
        }
        begin = end + 1;
    }
    return commands;
}

std::optional<std::vector<std::string>> plain_words(const std::string& command) {
    std::string_view left = command;
    if (!left.empty() && left.back() == '\n') {
        left.remove_suffix(1);
    }
    std::vector<std::string> words;
    for (;;) {
        const std::size_t end = std::min(left.find_first_not_of(kPlainCharacters), left.size());
        if (end == 0) {
            return std::nullopt;
        }
        words.emplace_back(left.substr(0, end));
        left.remove_prefix(end);
        if (left.empty()) {
            break;
        }
        if (left.front() != ' ') {
            return std::nullopt;
        }
        left.remove_prefix(1);
    }
    const bool is_ours =
        std::find(kPrograms.begin(), kPrograms.end(), words.front()) != kPrograms.end() &&
        std::getenv("PATH") != nullptr;
    return is_ours ? std::optional(std::move(words)) : std::nullopt;
}

std::optional<int> spawn_status(const std::vector<std::string>& words) {
    const QuietSignals quiet;
    pid_t process = -1;
    const int error = spawn(words, nullptr, quiet.Defaults(), process);
    if (error == 0) {
        return wait_for(process);
    }
    if (concerns_the_program(error)) {
        return std::nullopt;
    }
    errno = error;
    return -1;
}

SpawnedOutput::SpawnedOutput(const std::vector<std::string>& words) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return;
    }
    PipeEnd read_end(ends[0]);
    // This end is closed behind it, so that the stream ends when the program does.
    const int error = Start(words, PipeEnd(ends[1]).Descriptor());
    stream_ = error == 0 ? read_end.Stream() : nullptr;
    needs_shell_ = error != 0 && concerns_the_program(error);
}

int SpawnedOutput::Start(const std::vector<std::string>& words, int write_end) {
    FileActions actions;
    const int error = actions.Redirect(write_end, STDOUT_FILENO);
    return error != 0 ? error : spawn(words, actions.Get(), no_signals(), process_);
}

SpawnedOutput::~SpawnedOutput() {
    if (stream_ != nullptr) {
        std::fclose(stream_);
    }
    if (process_ != -1) {
        wait_for(process_);
    }
}
