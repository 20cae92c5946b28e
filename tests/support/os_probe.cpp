// Runs one operation of the platform room on the device it is started on and prints the result, so
// that the black-box tests meet the real shell, package tool and message bus.

#include "platform/command_runner.h"
#include "platform/network_settings.h"
#include "platform/os_subtype.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Words = std::vector<std::string>;

struct Operation {
    std::string_view name;
    std::size_t arguments;
    int (*run)(const Words& arguments);
};

int show(const auto& value) {
    std::cout << value << '\n';
    return EXIT_SUCCESS;
}

int show_truth(bool value) {
    return show(value ? "true" : "false");
}

const char* class_name(const OSSubType& variant) {
    if (dynamic_cast<const OSSSylvex*>(&variant) != nullptr) {
        return "OSSSylvex";
    }
    if (dynamic_cast<const OSSSylvex2*>(&variant) != nullptr) {
        return "OSSSylvex2";
    }
    if (dynamic_cast<const OSSSylvexSqaushFS*>(&variant) != nullptr) {
        return "OSSSylvexSqaushFS";
    }
    return dynamic_cast<const OSSSylvexGT*>(&variant) != nullptr ? "OSSSylvexGT" : "another class";
}

int run_variant(const Words& /*arguments*/) {
    const std::unique_ptr<OSSubType> variant = create_os_subtype();
    std::cout << class_name(*variant) << '\n'
              << variant->image_type() << '\n'
              << variant->sbin_dir() << '\n'
              << variant->bin_dir() << '\n'
              << variant->etc_dir() << '\n';
    return EXIT_SUCCESS;
}

int run_has_fslock(const Words& /*arguments*/) {
    return show_truth(create_os_subtype()->has_fslock());
}

int run_fs_lock(const Words& /*arguments*/) {
    create_os_subtype()->fs_lock();
    return EXIT_SUCCESS;
}

int run_fs_unlock(const Words& /*arguments*/) {
    create_os_subtype()->fs_unlock();
    return EXIT_SUCCESS;
}

int run_install(const Words& arguments) {
    create_os_subtype()->install_package(arguments[0].c_str());
    return EXIT_SUCCESS;
}

int run_install_strict(const Words& arguments) {
    return show_truth(create_os_subtype()->install_package_strict(arguments[0].c_str()));
}

int run_probe_network(const Words& /*arguments*/) {
    return show(create_os_subtype()->probe_network());
}

int run_find_wired(const Words& /*arguments*/) {
    return show(find_wired_connection());
}

int run_find_wireless(const Words& /*arguments*/) {
    return show(find_wireless_connection());
}

int run_is_wired(const Words& arguments) {
    return show_truth(is_wired_connection(std::stoi(arguments[0])));
}

int run_is_wireless(const Words& arguments) {
    return show_truth(is_wireless_connection(std::stoi(arguments[0])));
}

int run_setting(const Words& arguments) {
    std::array<char, 8192> value = {};
    get_connection_setting(std::stoi(arguments[0]), arguments[1].c_str(), value.data());
    return show(value.data());
}

int run_first_line(const Words& arguments) {
    std::string line = "untouched";
    const bool started = run_command_first_line(arguments[0], line);
    std::cout << (started ? "true" : "false") << " [" << line << "]\n";
    return EXIT_SUCCESS;
}

int run_shell_exec(const Words& arguments) {
    return show(shell_exec("%s", arguments[0].c_str()));
}

int run_shell_exec_raw(const Words& arguments) {
    return show(shell_exec_raw(arguments[0].c_str()));
}

int run_shell_exec_null(const Words& /*arguments*/) {
    return show(shell_exec_raw(nullptr));
}

void copy_stream(std::FILE* stream) {
    std::array<char, 4096> block;
    while (const std::size_t size = std::fread(block.data(), 1, block.size(), stream)) {
        std::cout.write(block.data(), static_cast<std::streamsize>(size));
    }
}

// What the command prints, then the exit code on a line of its own.
int run_shell_popen(const Words& arguments) {
    std::FILE* stream = nullptr;
    pid_t process = -1;
    const int started = shell_popen(stream, process, "%s", arguments[0].c_str());
    if (started != 0) {
        std::cout << "not started: " << started << '\n';
        return EXIT_FAILURE;
    }
    copy_stream(stream);
    std::fclose(stream);
    return show(shell_wait(process));
}

int run_shell_wait(const Words& arguments) {
    return show(shell_wait(std::stoi(arguments[0])));
}

constexpr std::array operations = {
    Operation{"variant", 0, run_variant},
    Operation{"has_fslock", 0, run_has_fslock},
    Operation{"fs_lock", 0, run_fs_lock},
    Operation{"fs_unlock", 0, run_fs_unlock},
    Operation{"install", 1, run_install},
    Operation{"install_strict", 1, run_install_strict},
    Operation{"probe_network", 0, run_probe_network},
    Operation{"find_wired", 0, run_find_wired},
    Operation{"find_wireless", 0, run_find_wireless},
    Operation{"is_wired", 1, run_is_wired},
    Operation{"is_wireless", 1, run_is_wireless},
    Operation{"setting", 2, run_setting},
    Operation{"run_first_line", 1, run_first_line},
    Operation{"shell_exec", 1, run_shell_exec},
    Operation{"shell_exec_raw", 1, run_shell_exec_raw},
    Operation{"shell_exec_null", 0, run_shell_exec_null},
    Operation{"shell_popen", 1, run_shell_popen},
    Operation{"shell_wait", 1, run_shell_wait},
};

}  // namespace

int main(int argc, char** argv) {
    const Words words(argv + 1, argv + argc);
    const auto* found = std::find_if(operations.begin(), operations.end(), [&](const auto& each) {
        return !words.empty() && each.name == words.front() && each.arguments + 1 == words.size();
    });
    if (found == operations.end()) {
        std::cerr << "os_probe: no such operation\n";
        return EXIT_FAILURE;
    }
    try {
        return found->run({words.begin() + 1, words.end()});
    } catch (const std::exception& failure) {
        std::cerr << "os_probe: " << failure.what() << '\n';
        return EXIT_FAILURE;
    }
}
