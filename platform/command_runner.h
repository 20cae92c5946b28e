#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

// The one door to processes. Every command is a line for /bin/sh -c; nothing else in the tool
// starts a process. Where the shell would only start a program (spawned_command), it is left out.

// Characters of a formatted command that are kept; what is longer is cut, not refused.
inline constexpr std::size_t kCommandLimit = 1023;

// The first line of the command's standard output, at most 1022 characters of it, trimmed at both
// ends, in `output` (empty when the command prints nothing). What comes behind it is not read.
// False, and `output` untouched, only when the command could not be started.
bool run_command_first_line(const std::string& command, std::string& output);

// The same line as it was read: not trimmed, its line end attached.
bool read_first_line(const std::string& command, std::string& line);

// The lines of the command's standard output, read to its end, each with its line end attached; a
// line of more than 1023 characters comes in pieces. False, and `lines` untouched, when the command
// could not be started.
bool read_all_lines(const std::string& command, std::vector<std::string>& lines);

// The status of the command as system() gives it: 0 only when the shell ended with exit status 0,
// so never 0 when it could not be started. The command writes to the tool's own standard output and
// error.
int command_status(const std::string& command);

// `format` filled in as printf does and cut to `limit` characters (kCommandLimit at most).
std::string format_command(std::size_t limit, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// The value as one word of a shell command line: as it is when made only of letters, digits and
// "_./:@%+=,-" or empty, otherwise in single quotes, so that the command gets exactly its bytes.
std::string shell_word(const std::string& value);

// The family on fork and exec. Formatted commands are cut to 4094 characters. Nothing is printed.

// The exit code of the shell, 0 to 255; -1 when it could not be started or waited for, or when a
// signal killed it.
int shell_exec(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The same without formatting. A null command gives 1, and nothing runs.
int shell_exec_raw(const char* command);

// Starts the command with its standard output and standard error on `stream`, open for reading: 0
// on success, 1 when the pipe or the stream cannot be made, -1 when fork fails. Read the stream to
// its end, close it with fclose, then pass `process` to shell_wait.
int shell_popen(std::FILE*& stream, pid_t& process, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// The exit code of that child; -1 when it cannot be waited for or when a signal killed it.
int shell_wait(pid_t process);
