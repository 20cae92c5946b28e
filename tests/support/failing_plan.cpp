#include "failing_plan.h"

#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct CallRow {
    const char* setting;
    int usual_error;
};

constexpr std::array<CallRow, kCalls> call_rows = {{
    {"FAIL_POPEN", EMFILE},
    {"FAIL_SYSTEM", EAGAIN},
    {"FAIL_SPAWN", ENOENT},
    {"FAIL_SPAWN_SETUP", ENOMEM},
    {"FAIL_FORK", EAGAIN},
    {"FAIL_WAITPID", ECHILD},
    {"FAIL_PIPE", EMFILE},
    {"FAIL_FOPEN", EMFILE},
    {"FAIL_FDOPEN", ENOMEM},
    {"FAIL_FREAD", EIO},
    {"FAIL_FGETS", EIO},
    {"FAIL_FWRITE", ENOSPC},
    {"SHORT_FWRITE", 0},
    {"FAIL_SETVBUF", 0},
    {"FAIL_FFLUSH", ENOSPC},
    {"FAIL_FCLOSE", EIO},
    {"FAIL_STAT", EACCES},
    {"FAIL_NEW", ENOMEM},
}};

long take_number(const char* setting) {
    const char* text = std::getenv(setting);
    const long number = text == nullptr ? 0 : std::strtol(text, nullptr, 10);
    unsetenv(setting);
    return number;
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

// A program that never calls anything of the table must not pass the settings on either.
__attribute__((constructor)) void take_settings() {
    plan();
}

using Main = int (*)(int, char**, char**);

Main program_main = nullptr;
bool begun = false;

int begin(int count, char** arguments, char** environment) {
    begun = true;
    const int result = program_main(count, arguments, environment);
    plan().report_counts();
    return result;
}

}  // namespace

Plan::Plan() {
    for (std::size_t call = 0; call < kCalls; ++call) {
        failing_[call] = take_number(call_rows[call].setting);
    }
    error_ = static_cast<int>(take_number("FAIL_ERRNO"));
    take_path("FAIL_FOPEN_PATH", path_);
    take_path("FAIL_REPORT", report_);
    unsetenv("LD_PRELOAD");
}

void Plan::take_path(const char* setting, std::array<char, 4096>& path) {
    if (const char* text = std::getenv(setting)) {
        std::snprintf(path.data(), path.size(), "%s", text);
    }
    unsetenv(setting);
}

bool Plan::strikes(Call call) {
    if (++made_[call] != failing_[call]) {
        return false;
    }
    constexpr char word[] = "struck\n";
    report(word, sizeof(word) - 1);
    errno = error_ == 0 ? call_rows[call].usual_error : error_;
    return true;
}

bool Plan::concerns(const char* path) const {
    return path_[0] == '\0' || std::strcmp(path_.data(), path) == 0;
}

void Plan::report_counts() const {
    for (std::size_t call = 0; call < kCalls; ++call) {
        std::array<char, 64> line{};
        const int size = std::snprintf(line.data(), line.size(), "%s %ld\n",
                                       call_rows[call].setting, made_[call]);
        report(line.data(), static_cast<std::size_t>(size));
    }
}

void Plan::report(const char* text, std::size_t size) const {
    const int file =
        report_[0] == '\0' ? -1 : open(report_.data(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (file != -1) {
        static_cast<void>(!write(file, text, size));
        close(file);
    }
}

Plan& plan() {
    static Plan plan;
    return plan;
}

bool is_program(const void* caller) {
    static const ProgramCode program;
    const auto address = reinterpret_cast<std::uintptr_t>(caller);
    return address >= program.begin && address < program.end;
}

bool has_begun() {
    return begun;
}

extern "C" int __libc_start_main(Main main, int count, char** arguments, void (*init)(),
                                 void (*end)(), void (*loader_end)(), void* stack_end) {
    program_main = main;
    return next<decltype(__libc_start_main)>("__libc_start_main")(begin, count, arguments, init,
                                                                  end, loader_end, stack_end);
}
