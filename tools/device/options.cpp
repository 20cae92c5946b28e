#include "tools/device/options.h"

#include "tools/device/failure.h"
#include "tools/device/ways.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>
#include <utility>

namespace {

constexpr unsigned highest_image_type = 10;

struct OptionRow {
    std::string_view name;
    std::string_view value;  ///< empty: the option stands alone
    std::string_view purpose;
    void (*take)(Options& options, const std::string& value);
};

[[noreturn]] void refuse(const std::string& reason) {
    throw Failure(ExitStatus::usage, reason + " (see device --help)");
}

void take_image_type(Options& options, const std::string& value) {
    unsigned number = 0;
    if (value != "none") {
        const char* end = value.data() + value.size();
        const auto [last, error] = std::from_chars(value.data(), end, number);
        if (error != std::errc() || last != end || number < 1 || number > highest_image_type) {
            refuse("--image-type takes 1 to 10 or none, not '" + value + "'");
        }
    }
    options.image_type = number;
}

void take_identity(Options& options, const std::string& value) {
    if (value == "systeminfo") {
        options.identity = IdentitySource::systeminfo;
    } else if (value == "imageid") {
        options.identity = IdentitySource::imageid;
    } else {
        refuse("--identity takes systeminfo or imageid, not '" + value + "'");
    }
}

void take_way(Options& options, const std::string& value) {
    if (find_way(value) == nullptr) {
        refuse("--way takes namespace, user-namespace or chroot, not '" + value + "'");
    }
    options.way = value;
}

void take_environment(Options& options, const std::string& value) {
    if (value.find('=') == std::string::npos || value.front() == '=') {
        refuse("--env takes NAME=VALUE, not '" + value + "'");
    }
    options.environment.push_back(value);
}

constexpr std::array option_rows = {
    OptionRow{"--image-type", "N", "build of the device, 1 to 10 (default 9), or none",
              take_image_type},
    OptionRow{"--identity", "SOURCE", "file that names the build: systeminfo or imageid",
              take_identity},
    OptionRow{"--zero", "", "product configuration \"zero\" (image types 6, 8, 9 and 10)",
              [](Options& options, const std::string&) { options.zero = true; }},
    OptionRow{"--systeminfo", "FILE", "copied to /etc/systeminfo",
              [](Options& options, const std::string& value) { options.systeminfo = value; }},
    OptionRow{"--imageid", "FILE", "copied to /etc/imageid",
              [](Options& options, const std::string& value) { options.imageid = value; }},
    OptionRow{"--registry", "SAMPLE", "loaded into the registry",
              [](Options& options, const std::string& value) { options.registry = value; }},
    OptionRow{"--sessions", "DIR", "its files are copied to /etc/tavrin/connections/",
              [](Options& options, const std::string& value) { options.sessions = value; }},
    OptionRow{"--client", "FILE", "program used as regsh in place of the reference client",
              [](Options& options, const std::string& value) { options.client = value; }},
    OptionRow{"--keep", "DIR", "the device lives in DIR and stays there",
              [](Options& options, const std::string& value) { options.keep = value; }},
    OptionRow{"--way", "NAME", "the only way to try: namespace, user-namespace or chroot",
              take_way},
    OptionRow{"--env", "NAME=VALUE", "set for the command alone; may be repeated",
              take_environment},
    OptionRow{"--describe", "", "say which ways work here, run nothing",
              [](Options& options, const std::string&) { options.describe = true; }},
    OptionRow{"--help", "", "print this text",
              [](Options& options, const std::string&) { options.help = true; }},
};

const OptionRow& find_option(const std::string& name) {
    const auto* row = std::find_if(option_rows.begin(), option_rows.end(),
                                   [&](const OptionRow& each) { return each.name == name; });
    if (row == option_rows.end()) {
        refuse("unknown option " + name);
    }
    return *row;
}

bool is_option(const std::string& word) {
    return word.size() > 1 && word.front() == '-';
}

}  // namespace

Options read_options(const std::vector<std::string>& arguments) {
    Options options;
    auto word = arguments.begin();
    while (word != arguments.end() && is_option(*word)) {
        if (*word == "--") {
            ++word;
            break;
        }
        const OptionRow& row = find_option(*word++);
        std::string value;
        if (!row.value.empty()) {
            if (word == arguments.end() || word->empty()) {
                refuse(std::string(row.name) + " needs a value");
            }
            value = *word++;
        }
        row.take(options, value);
    }
    options.command.assign(word, arguments.end());
    return options;
}

std::string help_text() {
    constexpr std::size_t column = 26;
    std::string text =
        "Usage: device [OPTION...] [--] [COMMAND...]\n"
        "Runs COMMAND, or a shell, on a simulated device: with an /etc, a /tmp and a registry of\n"
        "its own. The exit status is the command's.\n\n";
    for (const OptionRow& row : option_rows) {
        std::string line = "  " + std::string(row.name) + " " + std::string(row.value);
        line.resize(std::max(column, line.size() + 1), ' ');
        text += line + std::string(row.purpose) + "\n";
    }
    return text +
           "\nExit status of the device itself: 64 wrong usage, 65 registry sample refused, 66 an\n"
           "input cannot be read, 69 no way to make a device here, 73 a file cannot be made,\n"
           "126 the command cannot be started, 127 there is no such command.\n";
}
