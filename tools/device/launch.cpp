#include "tools/device/launch.h"

#include "tools/device/child_process.h"
#include "tools/device/command.h"
#include "tools/device/device_folder.h"
#include "tools/device/failure.h"
#include "tools/device/file_work.h"
#include "tools/device/signals.h"
#include "tools/device/view_probe.h"
#include "tools/device/ways.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

namespace {

// What a child tells before it executes the command, by the first letter; silence means that the
// command has been started.
constexpr char way_failed = 'W';
constexpr char not_found = 'N';
constexpr char not_executable = 'X';

struct Plan {
    const Options& options;
    const DeviceFolder& device;
    Luggage luggage;
    std::string path;  ///< search path
    StartFolder start;
    const SignalGate& signals;
};

struct Launch {
    pid_t child = -1;
    std::string report;
};

std::filesystem::path own_folder() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

std::vector<std::string> command_words(const Options& options) {
    return options.command.empty() ? std::vector<std::string>{"/bin/sh"} : options.command;
}

void add_preloaded(std::vector<std::filesystem::path>& paths, const std::string& list) {
    std::size_t start = 0;
    while (start < list.size()) {
        const std::size_t end = std::min(list.find_first_of(" :", start), list.size());
        if (list[start] == '/') {
            paths.emplace_back(list.substr(start, end - start));
        }
        start = end + 1;
    }
}

std::vector<std::filesystem::path> files_to_execute(const Options& options,
                                                    const std::string& path) {
    std::vector<std::filesystem::path> paths;
    const std::filesystem::path program = find_program(command_words(options).front(), path);
    if (!program.empty()) {
        paths.push_back(program);
    }
    const std::string preload = "LD_PRELOAD=";
    if (const char* inherited = std::getenv("LD_PRELOAD")) {
        add_preloaded(paths, inherited);
    }
    for (const std::string& setting : options.environment) {
        if (setting.starts_with(preload)) {
            add_preloaded(paths, setting.substr(preload.size()));
        }
    }
    return paths;
}

void load_registry(const Options& options, const DeviceFolder& device,
                   const std::filesystem::path& programs) {
    if (options.registry.empty()) {
        return;
    }
    if (access(options.registry.c_str(), R_OK) != 0) {
        throw Failure(ExitStatus::no_input, errno_text(options.registry.string()));
    }
    const std::string store = (device.etc() / "regsh/registry.db").string();
    const int status = status_of({(programs / "regsh").string(), "load", options.registry.string()},
                                 "REGSH_DB=" + store);
    if (status != 0) {
        throw Failure(ExitStatus::bad_input, "regsh load " + options.registry.string() +
                                                 " ended with status " + std::to_string(status));
    }
}

void tell(const FileHandle& pipe, char kind, const std::string& text) {
    const std::string message = kind + text;
    // A report that cannot be delivered has no other place to go.
    static_cast<void>(!write(pipe.get(), message.data(), message.size()));
}

void execute(const Plan& plan, const Way& way, const FileHandle& pipe) {
    std::vector<std::string> words = command_words(plan.options);
    const std::filesystem::path program = find_program(words.front(), plan.path);
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    const std::string name = words.front();
    set_environment(plan.options, plan.device, plan.path, way.name);
    errno = ENOENT;
    if (!program.empty()) {
        plan.signals.open();
        execv(program.c_str(), arguments.data());
    }
    tell(pipe, errno == ENOENT ? not_found : not_executable, errno_text(name));
}

// Runs in the child: everything here is thrown away with it, so nothing is cleaned up.
[[noreturn]] void live_as_child(const Plan& plan, const Way& way, const FileHandle& pipe) {
    try {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const ViewProbe probe(plan.device);
        way.enter(plan.luggage);
        probe.check();
        plan.start.enter(plan.device);
        if (!plan.options.describe) {
            execute(plan, way, pipe);
        }
    } catch (const std::exception& reason) {
        tell(pipe, way_failed, reason.what());
    }
    _exit(0);
}

std::string read_report(const FileHandle& pipe) {
    std::string text;
    std::array<char, 512> block;
    while (true) {
        const ssize_t count = read(pipe.get(), block.data(), block.size());
        if (count > 0) {
            text.append(block.data(), static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return text;
        }
    }
}

Launch try_way(const Plan& plan, const Way& way) {
    std::array<int, 2> ends = {-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw Failure(ExitStatus::unavailable, errno_text("pipe"));
    }
    const FileHandle reading(ends[0]);
    FileHandle writing(ends[1]);
    Launch launch;
    launch.child = fork();
    if (launch.child < 0) {
        throw Failure(ExitStatus::unavailable, errno_text("fork"));
    }
    if (launch.child == 0) {
        live_as_child(plan, way, writing);
    }
    writing.reset();
    launch.report = read_report(reading);
    if (!launch.report.empty() || plan.options.describe) {
        waitpid(launch.child, nullptr, 0);
    }
    return launch;
}

std::vector<Way> wanted_ways(const Options& options) {
    if (!options.way.empty()) {
        return {*find_way(options.way)};
    }
    return {all_ways().begin(), all_ways().end()};
}

std::string reason_line(const Way& way, const Launch& launch) {
    std::string line = "\n";
    line += way.name;
    line += ": ";
    line += launch.report.empty() ? "works" : launch.report.substr(1);
    return line;
}

int describe(const Plan& plan) {
    std::string reasons;
    std::string_view chosen;
    for (const Way& way : wanted_ways(plan.options)) {
        const Launch launch = try_way(plan, way);
        reasons += reason_line(way, launch);
        if (launch.report.empty() && chosen.empty()) {
            chosen = way.name;
        }
    }
    if (chosen.empty()) {
        throw Failure(ExitStatus::unavailable, "no device can be made here" + reasons);
    }
    std::cout << "way: " << chosen << reasons << std::endl;
    return 0;
}

/// The wait status of the command.
int run_command(const Plan& plan) {
    std::string reasons;
    for (const Way& way : wanted_ways(plan.options)) {
        const Launch launch = try_way(plan, way);
        if (launch.report.empty()) {
            return plan.signals.wait_and_pass_on(launch.child);
        }
        if (launch.report.front() != way_failed) {
            const bool missing = launch.report.front() == not_found;
            throw Failure(missing ? ExitStatus::not_found : ExitStatus::cannot_execute,
                          launch.report.substr(1));
        }
        reasons += reason_line(way, launch);
    }
    throw Failure(ExitStatus::unavailable, "no device can be made here" + reasons);
}

int live(const Options& options, const SignalGate& signals) {
    const std::filesystem::path programs = own_folder();
    const DeviceFolder device(options, programs);
    load_registry(options, device, programs);
    const std::string path = search_path(options, device, programs);
    const Plan plan{options,
                    device,
                    Luggage{device, programs, files_to_execute(options, path)},
                    path,
                    StartFolder(device),
                    signals};
    return options.describe ? describe(plan) : run_command(plan);
}

}  // namespace

int run_device(const Options& options) {
    const SignalGate signals;
    const int status = live(options, signals);
    return WIFSIGNALED(status) ? signals.end_by(WTERMSIG(status)) : WEXITSTATUS(status);
}
