// Preloaded into one program, notes every command line that it gives to the shell or starts without
// one. The environment says where:
//
//   COMMAND_LOG=F        each command line is appended to this file as two texts ended by NUL: the
//                        call that it was given to ("system" or "popen") and the line itself. A
//                        program started without the shell counts as the call that it stands for:
//                        its words joined by blanks, as "popen" where its output is read
//   COMMAND_REFUSED=C    this command line, noted as all others, is not started: the call fails
//
// Programs started by the program are left alone: the settings are taken out of the environment
// before it starts.

#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

namespace {

struct Settings {
    std::optional<std::string> log;
    std::optional<std::string> refused;
};

std::optional<std::string> take_setting(const char* name) {
    const char* value = std::getenv(name);
    std::optional<std::string> setting;
    if (value != nullptr) {
        setting = value;
    }
    unsetenv(name);
    return setting;
}

const Settings& settings() {
    static const Settings taken{take_setting("COMMAND_LOG"), take_setting("COMMAND_REFUSED")};
    return taken;
}

__attribute__((constructor)) void take_settings() {
    static_cast<void>(settings());
    unsetenv("LD_PRELOAD");
}

// A note that cannot be made ends the program: a test must not take it for a command that never
// ran.
void note(const char* call, const char* command) {
    if (!settings().log) {
        return;
    }
    std::string text = call;
    text += '\0';
    text += command;
    text += '\0';
    const int file =
        open(settings().log->c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (file < 0 || write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        std::fputs("command_log: a command line cannot be noted\n", stderr);
        std::abort();
    }
    close(file);
}

// Notes the command line and tells, with errno set, whether it is the one to refuse.
bool is_refused(const char* call, const char* command) {
    note(call, command);
    errno = EMFILE;
    return settings().refused && *settings().refused == command;
}

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

FILE* popen(const char* command, const char* mode) {
    return is_refused("popen", command) ? nullptr : next<decltype(popen)>("popen")(command, mode);
}

int system(const char* command) {
    return is_refused("system", command) ? -1 : next<decltype(system)>("system")(command);
}

int posix_spawnp(pid_t* process, const char* program, const posix_spawn_file_actions_t* actions,
                 const posix_spawnattr_t* attributes, char* const arguments[],
                 char* const environment[]) {
    std::string line;
    for (char* const* word = arguments; *word != nullptr; ++word) {
        line += (line.empty() ? "" : " ") + std::string(*word);
    }
    return is_refused(actions == nullptr ? "system" : "popen", line.c_str())
               ? EAGAIN
               : next<decltype(posix_spawnp)>("posix_spawnp")(process, program, actions, attributes,
                                                              arguments, environment);
}

}  // extern "C"
