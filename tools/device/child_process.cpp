#include "tools/device/child_process.h"

#include "tools/device/file_work.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <string_view>

namespace {

constexpr int cannot_start = 127;

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    result.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

// What the caller preloads is meant for the command, and may break the helpers.
std::vector<std::string> helper_environment() {
    std::vector<std::string> settings;
    for (char** each = environ; *each != nullptr; ++each) {
        const std::string_view setting = *each;
        if (setting.substr(0, 3) != "LD_") {
            settings.emplace_back(setting);
        }
    }
    return settings;
}

/// Starts the helper with its standard output on `output`; -1 when it cannot be started.
pid_t start(std::vector<std::string> arguments, std::vector<std::string> settings, int output) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const auto destroy = [](posix_spawn_file_actions_t* each) {
        posix_spawn_file_actions_destroy(each);
    };
    const std::unique_ptr<posix_spawn_file_actions_t, decltype(destroy)> owner(&actions, destroy);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    pid_t child = -1;
    const int error = posix_spawn(&child, arguments.front().c_str(), &actions, nullptr,
                                  pointers(arguments).data(), pointers(settings).data());
    return error == 0 ? child : -1;
}

int wait_for(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return cannot_start;
        }
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

std::string output_of(const std::vector<std::string>& arguments) {
    std::array<int, 2> ends = {-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return {};
    }
    const FileHandle reading(ends[0]);
    FileHandle writing(ends[1]);
    const pid_t child = start(arguments, helper_environment(), writing.get());
    writing.reset();
    if (child < 0) {
        return {};
    }
    std::string text;
    std::array<char, 4096> block;
    ssize_t count = 0;
    while ((count = read(reading.get(), block.data(), block.size())) > 0) {
        text.append(block.data(), static_cast<std::size_t>(count));
    }
    wait_for(child);
    return text;
}

int status_of(const std::vector<std::string>& arguments, const std::string& setting) {
    std::vector<std::string> settings = helper_environment();
    const std::string name = setting.substr(0, setting.find('=') + 1);
    std::erase_if(settings, [&](const std::string& each) { return each.starts_with(name); });
    settings.push_back(setting);
    const pid_t child = start(arguments, settings, STDERR_FILENO);
    return child < 0 ? cannot_start : wait_for(child);
}
