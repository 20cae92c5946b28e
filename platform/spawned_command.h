#pragma once

#include <sys/types.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

// Runs a command line without a shell where the shell would only start a program: the device's
// registry client, which is run for every connection. Everything else is left to the shell.

// The words of a command line that asks for the registry client, or for rm, with plain words;
// nothing for any other line, a line end behind the last word aside.
std::optional<std::vector<std::string>> plain_words(const std::string& command);

// The commands of a line that have plain words each and ";" between them; none for any other line.
std::vector<std::string> plain_commands(const std::string& line);

// Runs the program with those words, at least one, as system() runs a command line: signals from
// the keyboard are left to the program meanwhile, and of a program that a signal ends standard
// error tells. Its status as system() gives it, or -1 with errno set when it could not be started
// or, with ECHILD, not be waited for; nothing when the shell is to be asked, which says what is
// wrong with the program.
std::optional<int> spawn_status(const std::vector<std::string>& words);

// A program's standard output, and its end.
class SpawnedOutput {
public:
    // Starts the program with those words, at least one. `Stream` is null when it could not be
    // started.
    explicit SpawnedOutput(const std::vector<std::string>& words);
    SpawnedOutput(const SpawnedOutput&) = delete;
    SpawnedOutput& operator=(const SpawnedOutput&) = delete;
    // Closes the stream and waits for the program.
    ~SpawnedOutput();

    std::FILE* Stream() const { return stream_; }
    // True when the program was not started and the shell is to be asked.
    bool NeedsShell() const { return needs_shell_; }

private:
    // 0, or the error that says why the program did not start.
    int Start(const std::vector<std::string>& words, int write_end);

    std::FILE* stream_ = nullptr;
    pid_t process_ = -1;
    bool needs_shell_ = false;
};
