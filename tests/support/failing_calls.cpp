// Preloaded into one program, makes one chosen call of it fail. The environment says which:
//
//   FAIL_POPEN=K FAIL_SYSTEM=K FAIL_FORK=K FAIL_PIPE=K FAIL_FOPEN=K FAIL_FDOPEN=K
//   FAIL_FREAD=K FAIL_FGETS=K FAIL_FWRITE=K FAIL_SETVBUF=K FAIL_FFLUSH=K FAIL_FCLOSE=K FAIL_STAT=K
//   FAIL_NEW=K           the K-th call, counted from 1, fails without doing anything (a failing
//                        fclose still closes); FAIL_NEW stands for operator new, and for the
//                        memory that the program itself asks the C library for from main() on
//   FAIL_SPAWN=K         starting a program without the shell fails so that the shell is asked;
//                        FAIL_POPEN and FAIL_SYSTEM mean what is started in either way
//   FAIL_SPAWN_SETUP=K   what is prepared for such a start fails
//   FAIL_WAITPID=K       waits all the same, as where SIGCHLD is ignored
//   SHORT_FWRITE=K       the K-th fwrite writes a single item
//   FAIL_FOPEN_PATH=F    only opening this file counts for FAIL_FOPEN
//   FAIL_ERRNO=N         errno of the failure, in place of the usual one
//   FAIL_REPORT=F        the line "struck" goes into this file when the call has failed, and a line
//                        of each setting and how many such calls there were when main() returns
//
// Writing to standard output and standard error never counts. Programs started by the program are
// left alone: the settings are taken out of the environment before it starts.

#include "failing_plan.h"

#include <spawn.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

bool is_counted(const std::FILE* stream) {
    return stream != stdout && stream != stderr;
}

// The stream remembers a failure as after a true one.
bool strikes_on(Call call, std::FILE* stream) {
    if (!is_counted(stream) || !plan().strikes(call)) {
        return false;
    }
    stream->_flags |= _IO_ERR_SEEN;
    return true;
}

// 0, or the error of preparing to start a program.
int setup_error() {
    return plan().strikes(kSpawnSetup) ? errno : 0;
}

}  // namespace

extern "C" {

// Processes

FILE* popen(const char* command, const char* mode) {
    return plan().strikes(kPopen) ? nullptr : next<decltype(popen)>("popen")(command, mode);
}

int system(const char* command) {
    return plan().strikes(kSystem) ? -1 : next<decltype(system)>("system")(command);
}

// A program started without the shell, in place of the call that would have asked for it.
int posix_spawnp(pid_t* process, const char* program, const posix_spawn_file_actions_t* actions,
                 const posix_spawnattr_t* attributes, char* const arguments[],
                 char* const environment[]) {
    if (plan().strikes(kSpawn)) {
        return errno;
    }
    if (plan().strikes(actions == nullptr ? kSystem : kPopen)) {
        return EAGAIN;
    }
    return next<decltype(posix_spawnp)>("posix_spawnp")(process, program, actions, attributes,
                                                        arguments, environment);
}

int posix_spawn_file_actions_init(posix_spawn_file_actions_t* actions) noexcept {
    const int error = setup_error();
    return error != 0
               ? error
               : next<int(posix_spawn_file_actions_t*)>("posix_spawn_file_actions_init")(actions);
}

int posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t* actions, int from,
                                     int to) noexcept {
    const int error = setup_error();
    return error != 0 ? error
                      : next<int(posix_spawn_file_actions_t*, int, int)>(
                            "posix_spawn_file_actions_adddup2")(actions, from, to);
}

int posix_spawnattr_init(posix_spawnattr_t* attributes) noexcept {
    const int error = setup_error();
    return error != 0 ? error : next<int(posix_spawnattr_t*)>("posix_spawnattr_init")(attributes);
}

pid_t fork() noexcept {
    return plan().strikes(kFork) ? -1 : next<pid_t()>("fork")();
}

// As where the news of a child's end is ignored: its end is waited for and nothing is told of it.
pid_t waitpid(pid_t process, int* status, int options) {
    if (plan().strikes(kWaitpid)) {
        const int error = errno;
        if (error == ECHILD) {
            next<decltype(waitpid)>("waitpid")(process, nullptr, 0);
        }
        errno = error;
        return -1;
    }
    return next<decltype(waitpid)>("waitpid")(process, status, options);
}

// The address sanitizer makes pipes of its own.
int pipe(int ends[2]) noexcept {
    const bool fails = is_program(__builtin_return_address(0)) && plan().strikes(kPipe);
    return fails ? -1 : next<int(int*)>("pipe")(ends);
}

int pipe2(int ends[2], int flags) noexcept {
    const bool fails = is_program(__builtin_return_address(0)) && plan().strikes(kPipe);
    return fails ? -1 : next<int(int*, int)>("pipe2")(ends, flags);
}

// Files

FILE* fopen(const char* path, const char* mode) {
    const bool fails = plan().concerns(path) && plan().strikes(kFopen);
    return fails ? nullptr : next<FILE*(const char*, const char*)>("fopen")(path, mode);
}

FILE* fdopen(int file, const char* mode) noexcept {
    // The tool opens so what it reads; the counters of the coverage build open their file for both.
    const bool strikes = std::strchr(mode, '+') == nullptr && plan().strikes(kFdopen);
    return strikes ? nullptr : next<FILE*(int, const char*)>("fdopen")(file, mode);
}

std::size_t fread(void* items, std::size_t size, std::size_t count, FILE* stream) {
    return strikes_on(kFread, stream) ? 0
                                      : next<decltype(fread)>("fread")(items, size, count, stream);
}

char* fgets(char* line, int size, FILE* stream) {
    return strikes_on(kFgets, stream) ? nullptr
                                      : next<decltype(fgets)>("fgets")(line, size, stream);
}

std::size_t fwrite(const void* items, std::size_t size, std::size_t count, FILE* stream) {
    if (strikes_on(kFwrite, stream)) {
        return 0;
    }
    const bool is_short = is_counted(stream) && plan().strikes(kShortFwrite) && count > 1;
    return next<decltype(fwrite)>("fwrite")(items, size, is_short ? 1 : count, stream);
}

int setvbuf(FILE* stream, char* buffer, int mode, std::size_t size) noexcept {
    return plan().strikes(kSetvbuf)
               ? -1
               : next<int(FILE*, char*, int, std::size_t)>("setvbuf")(stream, buffer, mode, size);
}

// The C++ library, too, flushes standard output and error, or everything.
int fflush(FILE* stream) {
    const bool fails = stream != nullptr && strikes_on(kFflush, stream);
    return fails ? EOF : next<decltype(fflush)>("fflush")(stream);
}

int fclose(FILE* stream) {
    const bool fails = is_counted(stream) && plan().strikes(kFclose);
    const int error = errno;
    const int result = next<decltype(fclose)>("fclose")(stream);
    errno = fails ? error : errno;
    return fails ? EOF : result;
}

int stat(const char* path, struct stat* status) noexcept {
    return plan().strikes(kStat) ? -1 : next<int(const char*, struct stat*)>("stat")(path, status);
}

int fstat(int file, struct stat* status) noexcept {
    return plan().strikes(kStat) ? -1 : next<int(int, struct stat*)>("fstat")(file, status);
}

}  // extern "C"
