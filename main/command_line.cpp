#include "main/command_line.h"

#include "common/messages.h"
#include "common/run_options.h"

#include <strings.h>

#include <cstdio>
#include <string>

namespace {

struct Mode {
    const char* word;  // behind the dash
    RunMode mode;
    bool takes_options;
};
constexpr Mode kModes[] = {
    {"get", RunMode::kGet, true},
    {"set", RunMode::kSet, true},
    {"v", RunMode::kVersion, false},
    {"h", RunMode::kHelp, false},
};

// Program name, mode, type, and at least an option with its value.
constexpr int kFewestArguments = 5;

struct ValueOption {
    const char* letter;
    std::string RunOptions::*value;
};
constexpr ValueOption kValueOptions[] = {
    {"f", &RunOptions::file},
    {"u", &RunOptions::user},
    {"p", &RunOptions::password},
};

const Mode* find_mode(const char* argument) {
    if (*argument != '-') {
        return nullptr;
    }
    for (const Mode& mode : kModes) {
        if (strcasecmp(argument + 1, mode.word) == 0) {
            return &mode;
        }
    }
    return nullptr;
}

// Takes one option, with the word behind it where the option has a value (null: there is none).
// False for what is no option.
bool take_option(const char* letter, const char* following) {
    if (strcasecmp(letter, "r") == 0) {
        run_options.remove = 1;
        return true;
    }
    for (const ValueOption& option : kValueOptions) {
        if (following != nullptr && strcasecmp(letter, option.letter) == 0) {
            run_options.*option.value = following;
            return true;
        }
    }
    return false;
}

}  // namespace

bool parse_args(int argc, char* argv[]) {
    if (argc < 2) {
        return false;
    }
    const Mode* mode = find_mode(argv[1]);
    if (mode == nullptr) {
        return false;
    }
    run_options.mode = mode->mode;
    if (!mode->takes_options) {
        return true;
    }
    return argc >= kFewestArguments && parse_options(argc, argv);
}

bool parse_options(int argc, char* argv[]) {
    run_options.type = argv[2];
    // An option's value is looked at again in its turn, so one that begins with a dash is an option
    // too.
    for (int i = 3; i < argc; ++i) {
        const char* following = i + 1 < argc ? argv[i + 1] : nullptr;
        if (argv[i][0] == '-' && !take_option(argv[i] + 1, following)) {
            return false;
        }
    }
    return true;
}

void print_usage() {
    std::puts(
        "The usage of Quorvel: \n"
        "corvik options \n"
        "  options: \n"
        "    -get <connection type> -f <file> [-u <user>] [-p <pwd>] \n"
        "    -set <connection type> -f <file> [-u <user>] [-p <pwd>] [-r] \n"
        "      <connection type>: Can be ICA, RDP and so on. \n"
        "      <file>: The file contains the connections' content. \n"
        "      <user>: To get/set which users' connection. If not set, the default user is "
        "\"user\". \n"
        "      <pwd>:  The password for the user. \n"
        "      \"-r\": Remove the existent connections. \n"
        "    -v    Output the corvik's version. \n"
        "    -h    Output this usage.");
}

void print_version() {
    std::printf("Quorvel: %s\n", CORVIK_VERSION);
}

void print_syntax_error() {
    print_message("The syntax is incorrect. \nTry \"corvik -h\" for more information. \n");
}
