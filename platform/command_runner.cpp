#include "platform/command_runner.h"

#include "common/string_tokens.h"
#include "platform/spawned_command.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>

namespace {

constexpr std::size_t kLineSize = 1024;
constexpr int kFirstLineSize = 1023;
constexpr std::size_t kShellCommandSize = 4096;
constexpr std::size_t kShellCommandLimit = 4094;
constexpr int kCommandNotRun = 127;  // the shell's own status for a command that cannot be run

using ShellCommand = std::array<char, kShellCommandSize>;

__attribute__((format(printf, 1, 0))) ShellCommand format_shell_command(const char* format,
                                                                        std::va_list arguments) {
    ShellCommand command{};
    static_cast<void>(std::vsnprintf(command.data(), kShellCommandLimit + 1, format, arguments));
    return command;
}

// Command streams are closed with fclose, not pclose: nobody asks for the command's status.
struct CommandCloser {
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-dealloc"
#endif
    void operator()(std::FILE* stream) const {
        static_cast<void>(std::fclose(stream));
    }
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
};
using CommandStream = std::unique_ptr<std::FILE, CommandCloser>;

// A command and its standard output to be read. The command has ended when this goes.
class CommandOutput {
public:
    explicit CommandOutput(const std::string& command) {
        if (const auto words = plain_words(command)) {
            spawned_.emplace(*words);
        }
        if (!spawned_ || spawned_->NeedsShell()) {
            shell_.reset(::popen(command.c_str(), "r"));
        }
    }
    // Null when the command could not be started.
    std::FILE* Stream() const {
        return shell_ ? shell_.get() : spawned_ ? spawned_->Stream() : nullptr;
    }

private:
    std::optional<SpawnedOutput> spawned_;
    CommandStream shell_;
};

// In the child: becomes the shell. The parent's stream buffers are not flushed a second time when
// there is none.
[[noreturn]] void become_shell(const char* command) {
    char name[] = "sh";
    char option[] = "-c";
    std::array<char*, 4> arguments{name, option, const_cast<char*>(command), nullptr};
    ::execv("/bin/sh", arguments.data());
    ::_exit(kCommandNotRun);
}

// In the child: standard output and standard error become the pipe.
void redirect_output(int write_end) {
    if (write_end != STDOUT_FILENO) {
        ::dup2(write_end, STDOUT_FILENO);
        ::dup2(write_end, STDERR_FILENO);
        ::close(write_end);
    }
}

// Written out, so that neither a locale nor a NUL changes what the shell takes as it is.
constexpr const char* kPlainCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_./:@%+=,-";

}  // namespace

bool read_first_line(const std::string& command, std::string& line) {
    const CommandOutput output(command);
    if (output.Stream() == nullptr) {
        return false;
    }
    std::array<char, kLineSize> buffer{};
    const char* got = std::fgets(buffer.data(), kFirstLineSize, output.Stream());
    line = got == nullptr ? "" : got;
    return true;
}

bool run_command_first_line(const std::string& command, std::string& output) {
    std::string line;
    if (!read_first_line(command, line)) {
        return false;
    }
    output = trim_string(line.data(), kTrimBoth);
    return true;
}

bool read_all_lines(const std::string& command, std::vector<std::string>& lines) {
    const CommandOutput output(command);
    if (output.Stream() == nullptr) {
        return false;
    }
    std::vector<std::string> read;
    std::array<char, kLineSize> buffer{};
    while (std::fgets(buffer.data(), static_cast<int>(buffer.size()), output.Stream()) != nullptr) {
        read.emplace_back(buffer.data());
    }
    lines = std::move(read);
    return true;
}

int command_status(const std::string& command) {
    const std::vector<std::string> commands = plain_commands(command);
    std::size_t begin = 0;
    int status = 0;
    for (const std::string& each : commands) {
        const auto spawned = spawn_status(*plain_words(each));
        if (!spawned) {
            return std::system(command.c_str() + begin);
        }
        status = *spawned;
        if (status == -1 && errno != ECHILD) {
            return status;  // nothing can be started
        }
        begin += each.size() + 1;
    }
    return commands.empty() ? std::system(command.c_str()) : status;
}

std::string format_command(std::size_t limit, const char* format, ...) {
    std::array<char, kCommandLimit + 1> command{};
    std::va_list arguments;
    va_start(arguments, format);
    static_cast<void>(
        std::vsnprintf(command.data(), std::min(limit, kCommandLimit) + 1, format, arguments));
    va_end(arguments);
    return command.data();
}

std::string shell_word(const std::string& value) {
    if (value.find_first_not_of(kPlainCharacters) == std::string::npos) {
        return value;
    }
    std::string word = "'";
    for (const char c : value) {
        if (c == '\'') {
            word += "'\\''";
        } else {
            word += c;
        }
    }
    return word + "'";
}

int shell_exec(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const ShellCommand command = format_shell_command(format, arguments);
    va_end(arguments);
    return shell_exec_raw(command.data());
}

int shell_exec_raw(const char* command) {
    if (command == nullptr) {
        return 1;
    }
    const pid_t process = ::fork();
    switch (process) {
        case -1:
            return -1;
        case 0:
            become_shell(command);
        default:
            return shell_wait(process);
    }
}

int shell_popen(std::FILE*& stream, pid_t& process, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const ShellCommand command = format_shell_command(format, arguments);
    va_end(arguments);
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0) {
        return 1;
    }
    const auto [read_end, write_end] = ends;
    process = ::fork();
    switch (process) {
        case -1:
            ::close(read_end);
            ::close(write_end);
            return -1;
        case 0:
            ::close(read_end);
            redirect_output(write_end);
            become_shell(command.data());
        default:
            ::close(write_end);
    }
    stream = ::fdopen(read_end, "r");
    if (stream == nullptr) {
        ::close(read_end);
        return 1;
    }
    return 0;
}

int shell_wait(pid_t process) {
    for (;;) {
        int status = 0;
        const pid_t waited = ::waitpid(process, &status, 0);
        if (waited == -1 && errno == EINTR) {
            continue;
        }
        if (waited == -1) {
            return -1;
        }
        // A child that a signal ended is waited for once more, which fails.
        if (WIFEXITED(status)) {
            return WEXITSTATUS(status);
        }
    }
}
