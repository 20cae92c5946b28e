#include "tests/fuzz/fake_device.h"

#include "common/run_options.h"
#include "tests/fuzz/fuzz_input.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string_view>

namespace {

constexpr std::string_view kSessionFolder = "/etc/tavrin/connections/";
constexpr std::string_view kAskProductConfig = "cat /etc/systeminfo | grep PRODUCT_CONFIG ";
constexpr std::size_t kShortestCutCommand = 1022;  // formatted commands are cut there or behind it
constexpr std::size_t kMostOutput = 60000;         // less than a pipe takes
constexpr pid_t kFakeProcess = 0x3fffffff;

struct Verb {
    std::string_view word;
    std::size_t fewest_words;
    std::size_t most_words;
};
constexpr std::array<Verb, 8> kVerbs = {{
    {"export", 4, 4},
    {"import", 3, 3},
    {"contains", 3, 3},
    {"get", 3, 3},
    {"set", 3, 4},
    {"delete", 2, 3},  // nothing is named by a listed line whose second word is its end
    {"commit", 2, 3},
    {"create", 3, 3},
}};

FakeDevice* device = nullptr;
int output_end = -1;  // where the program that is started next writes
int last_status = 0;  // of the program that was started last

bool begins_with(std::string_view text, std::string_view beginning) {
    return text.substr(0, beginning.size()) == beginning;
}

bool may_be_written(std::string_view path) {
    const bool is_session = begins_with(path, kSessionFolder) &&
                            (std::string(path) + "/").find("/../") == std::string::npos;
    return is_session || path == "/tmp/import.xml" || path == FakeDevice::kConnectionsFile;
}

// The words of a command that was cut are not what they were to be.
bool may_be_cut(const Words& words) {
    std::size_t size = 0;
    for (const std::string& word : words) {
        size += word.size() + 1;
    }
    return size > kShortestCutCommand;
}

void check_words(const Words& words) {
    expect(words.front() == "regsh" && words.size() >= 2, "a program that is not the tool's");
    const auto* verb = std::find_if(kVerbs.begin(), kVerbs.end(),
                                    [&words](const Verb& row) { return row.word == words[1]; });
    expect(verb != kVerbs.end(), "a verb that is not the tool's");
    expect(words.size() >= verb->fewest_words && words.size() <= verb->most_words,
           "a command with the wrong count of words");
}

// --- files as streams
// -------------------------------------------------------------------------------

struct OpenFile {
    std::string content;
    std::size_t at = 0;
    std::string* written = nullptr;  // null: for reading
};

ssize_t read_file(void* cookie, char* buffer, std::size_t size) {
    auto* file = static_cast<OpenFile*>(cookie);
    const std::size_t got = file->content.copy(buffer, size, file->at);
    file->at += got;
    return static_cast<ssize_t>(got);
}

ssize_t write_file(void* cookie, const char* buffer, std::size_t size) {
    static_cast<OpenFile*>(cookie)->written->append(buffer, size);
    return static_cast<ssize_t>(size);
}

int close_file(void* cookie) {
    const std::unique_ptr<OpenFile> owner(static_cast<OpenFile*>(cookie));
    return 0;
}

std::FILE* open_stream(std::unique_ptr<OpenFile> file, const char* mode) {
    const cookie_io_functions_t functions = {read_file, write_file, nullptr, close_file};
    return fopencookie(file.release(), mode, functions);
}

std::FILE* open_to_write(const char* path) {
    expect(may_be_written(path), "a file written at a place that is not the tool's");
    auto file = std::make_unique<OpenFile>();
    file->written = &device->files[path];
    file->written->clear();
    return open_stream(std::move(file), "w");
}

std::FILE* open_to_read(const std::string& content) {
    auto file = std::make_unique<OpenFile>();
    file->content = content;
    return open_stream(std::move(file), "r");
}

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// --- what the tool asks the C library for
// -----------------------------------------------------------

extern "C" {

FILE* fopen(const char* path, const char* mode) {
    if (device == nullptr || *path != '/') {
        return next<FILE*(const char*, const char*)>("fopen")(path, mode);
    }
    if (*mode != 'r') {
        return open_to_write(path);
    }
    const std::string* content = device->Find(path);
    errno = ENOENT;
    return content == nullptr ? nullptr : open_to_read(*content);
}

int stat(const char* path, struct stat* status) noexcept {
    if (device == nullptr || *path != '/') {
        return fstatat(AT_FDCWD, path, status, 0);
    }
    const std::string* content = device->Find(path);
    if (content == nullptr) {
        errno = ENOENT;
        return -1;
    }
    *status = {};
    status->st_mode = S_IFREG;
    status->st_size = static_cast<off_t>(content->size());
    return 0;
}

int system(const char* command) {
    expect(device != nullptr, "a command without a device");
    std::string output;
    return W_EXITCODE(device->RunLine(command, output), 0);
}

FILE* popen(const char* command, const char* /*mode*/) {
    expect(device != nullptr, "a command without a device");
    std::string output;
    device->RunLine(command, output);
    return open_to_read(output);
}

pid_t fork() noexcept {
    finding("a process is started");
}

int posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t* /*actions*/, int from,
                                     int /*to*/) noexcept {
    output_end = from;
    return 0;
}

int posix_spawnp(pid_t* process, const char* /*program*/, const posix_spawn_file_actions_t* actions,
                 const posix_spawnattr_t* /*attributes*/, char* const arguments[],
                 char* const /*environment*/[]) {
    expect(device != nullptr, "a program without a device");
    Words words;
    for (char* const* argument = arguments; *argument != nullptr; ++argument) {
        words.emplace_back(*argument);
    }
    std::string output;
    last_status = W_EXITCODE(device->Run(words, output), 0);
    output.resize(std::min(output.size(), kMostOutput));
    if (actions != nullptr) {
        expect(
            write(output_end, output.data(), output.size()) == static_cast<ssize_t>(output.size()),
            "the pipe does not take the output");
    }
    *process = kFakeProcess;
    return 0;
}

pid_t waitpid(pid_t process, int* status, int options) {
    if (process != kFakeProcess) {
        return wait4(process, status, options, nullptr);
    }
    *status = last_status;
    return process;
}

}  // extern "C"

// --- the device
// -------------------------------------------------------------------------------------

FakeDevice::FakeDevice() {
    device = this;
    run_options = RunOptions();
}

FakeDevice::~FakeDevice() {
    device = nullptr;
}

const std::string* FakeDevice::Find(const std::string& path) const {
    const auto file = files.find(path);
    if (file != files.end()) {
        return &file->second;
    }
    return begins_with(path, kSessionFolder) && !session.empty() ? &session : nullptr;
}

int FakeDevice::Run(const Words& words, std::string& output) {
    if (may_be_cut(words)) {
        return 1;
    }
    if (words.front() == "rm") {
        expect(words.size() == 3 && words[1] == "-f", "a removal of something else");
        files.erase(words[2]);
        return 0;
    }
    check_words(words);
    if (words[1] == "export") {
        files[words[3]] = registry;
    } else if (words[1] == "import") {
        expect(files.count(words[2]) == 1, "an import of what was not written");
        imported.push_back(files[words[2]]);
    } else if (words[1] == "get") {
        const bool is_default = words[2] == "root/ConnectionManager/defaultConnection";
        output = is_default ? default_connection : listing;
    }
    return 0;
}

int FakeDevice::RunLine(const std::string& line, std::string& output) {
    if (begins_with(line, kAskProductConfig)) {
        const std::string* system_info = Find("/etc/systeminfo");
        output = system_info == nullptr ? "" : product_configuration(*system_info) + "\n";
        return 0;
    }
    const auto commands = shell_commands(line);
    if (!commands) {
        expect(line.size() >= kShortestCutCommand, "a quoted part without an end");
        return 2;
    }
    expect(commands->size() == 1 || begins_with(line, "rm -f /tmp/"), "a line of several commands");
    int status = 0;
    for (const Words& words : *commands) {
        status = Run(words, output);
    }
    return status;
}

std::string product_configuration(const std::string& system_info) {
    std::istringstream lines(system_info);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.find("PRODUCT_CONFIG") == std::string::npos) {
            continue;
        }
        const std::size_t opening = line.find('"');
        if (opening != std::string::npos) {
            line.erase(0, opening + 1);
            line.resize(std::min(line.find('"'), line.size()));
        }
        return without_white_ends(line.c_str());
    }
    return "";
}
