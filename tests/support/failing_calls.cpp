// Preloaded into one program, makes one chosen call of it fail. The environment says which:
//
//   FAIL_POPEN=K FAIL_SYSTEM=K FAIL_FORK=K FAIL_FOPEN=K FAIL_FWRITE=K FAIL_FCLOSE=K FAIL_NEW=K
//                        the K-th call, counted from 1, fails without doing anything (a failing
//                        fclose still closes); FAIL_NEW stands for operator new, and for the
//                        memory that the program itself asks the C library for from main() on
//   SHORT_FWRITE=K       the K-th fwrite writes a single item
//   FAIL_FOPEN_PATH=F    only opening this file counts for FAIL_FOPEN
//   FAIL_ERRNO=N         errno of the failure, in place of the usual one
//
// Writing to standard output and standard error never counts. Programs started by the program are
// left alone: the settings are taken out of the environment before it starts.

#include <dlfcn.h>
#include <link.h>
#include <spawn.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

enum Call { kPopen, kSystem, kFork, kFopen, kFwrite, kShortFwrite, kFclose, kNew, kCalls };

struct CallRow {
    const char* setting;
    int usual_error;
};

constexpr std::array<CallRow, kCalls> call_rows = {{
    {"FAIL_POPEN", EMFILE},
    {"FAIL_SYSTEM", EAGAIN},
    {"FAIL_FORK", EAGAIN},
    {"FAIL_FOPEN", EMFILE},
    {"FAIL_FWRITE", ENOSPC},
    {"SHORT_FWRITE", 0},
    {"FAIL_FCLOSE", EIO},
    {"FAIL_NEW", ENOMEM},
}};

// Lives without memory of its own, because operator new asks it.
class Plan {
public:
    Plan() {
        for (std::size_t call = 0; call < kCalls; ++call) {
            left_[call] = take_number(call_rows[call].setting);
        }
        error_ = static_cast<int>(take_number("FAIL_ERRNO"));
        if (const char* path = std::getenv("FAIL_FOPEN_PATH")) {
            std::snprintf(path_.data(), path_.size(), "%s", path);
        }
        unsetenv("FAIL_FOPEN_PATH");
        unsetenv("LD_PRELOAD");
    }

    // Counts this call and tells, with errno set, whether it is the one that fails.
    bool strikes(Call call) {
        if (left_[call] == 0 || --left_[call] != 0) {
            return false;
        }
        errno = error_ == 0 ? call_rows[call].usual_error : error_;
        return true;
    }

    bool concerns(const char* path) const {
        return path_[0] == '\0' || std::strcmp(path_.data(), path) == 0;
    }

private:
    static long take_number(const char* setting) {
        const char* text = std::getenv(setting);
        const long number = text == nullptr ? 0 : std::strtol(text, nullptr, 10);
        unsetenv(setting);
        return number;
    }

    std::array<long, kCalls> left_{};  // calls up to the failing one; 0: none fails
    std::array<char, 4096> path_{};
    int error_ = 0;
};

Plan& plan() {
    static Plan plan;
    return plan;
}

// A program that never calls anything of the table must not pass the settings on either.
__attribute__((constructor)) void take_settings() {
    plan();
}

// Where the code of the program itself stands.
struct ProgramCode {
    std::uintptr_t begin = UINTPTR_MAX;
    std::uintptr_t end = 0;

    ProgramCode() {
        // The program comes first.
        dl_iterate_phdr(
            [](dl_phdr_info* object, std::size_t, void* code) {
                static_cast<ProgramCode*>(code)->take(*object);
                return 1;
            },
            this);
    }

    void take(const dl_phdr_info& object) {
        for (int at = 0; at < object.dlpi_phnum; ++at) {
            const auto& part = object.dlpi_phdr[at];
            if (part.p_type == PT_LOAD) {
                const std::uintptr_t start = object.dlpi_addr + part.p_vaddr;
                begin = std::min(begin, start);
                end = std::max(end, start + part.p_memsz);
            }
        }
    }
};

using Main = int (*)(int, char**, char**);

// Set when main() begins: the C++ library's spare memory, taken before, is none of the program's.
Main program_main = nullptr;
bool has_begun = false;

// True when memory that is asked for from there is to be refused.
bool is_refused(const void* caller) {
    if (!has_begun) {
        return false;
    }
    static const ProgramCode program;
    const auto address = reinterpret_cast<std::uintptr_t>(caller);
    return address >= program.begin && address < program.end && plan().strikes(kNew);
}

int begin(int count, char** arguments, char** environment) {
    has_begun = true;
    return program_main(count, arguments, environment);
}

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void* allocate(std::size_t size) {
    void* memory = plan().strikes(kNew) ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

bool is_counted(const std::FILE* stream) {
    return stream != stdout && stream != stderr;
}

}  // namespace

extern "C" {

// The C library's own names for what the two below hide.
void* __libc_malloc(std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);

int __libc_start_main(Main main, int count, char** arguments, void (*init)(), void (*end)(),
                      void (*loader_end)(), void* stack_end) {
    program_main = main;
    return next<decltype(__libc_start_main)>("__libc_start_main")(begin, count, arguments, init,
                                                                  end, loader_end, stack_end);
}

void* malloc(std::size_t size) {
    return is_refused(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}

void* realloc(void* memory, std::size_t size) {
    return is_refused(__builtin_return_address(0)) ? nullptr : __libc_realloc(memory, size);
}

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
    if (plan().strikes(actions == nullptr ? kSystem : kPopen)) {
        return EAGAIN;
    }
    return next<decltype(posix_spawnp)>("posix_spawnp")(process, program, actions, attributes,
                                                        arguments, environment);
}

pid_t fork() noexcept {
    return plan().strikes(kFork) ? -1 : next<pid_t()>("fork")();
}

FILE* fopen(const char* path, const char* mode) {
    const bool fails = plan().concerns(path) && plan().strikes(kFopen);
    return fails ? nullptr : next<FILE*(const char*, const char*)>("fopen")(path, mode);
}

std::size_t fwrite(const void* items, std::size_t size, std::size_t count, FILE* stream) {
    if (is_counted(stream)) {
        if (plan().strikes(kFwrite)) {
            return 0;
        }
        count = plan().strikes(kShortFwrite) && count > 1 ? 1 : count;
    }
    return next<decltype(fwrite)>("fwrite")(items, size, count, stream);
}

int fclose(FILE* stream) {
    const bool fails = is_counted(stream) && plan().strikes(kFclose);
    const int error = errno;
    const int result = next<decltype(fclose)>("fclose")(stream);
    errno = fails ? error : errno;
    return fails ? EOF : result;
}

}  // extern "C"

void* operator new(std::size_t size) {
    return allocate(size);
}

void* operator new[](std::size_t size) {
    return allocate(size);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete[](void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
