// Prints the display names of the connection types, as arms of a shell "case" over the image type,
// for the command-line completions. They come from the tool's own table, which is linked in; what
// the table asks of a device is answered here, so that the machine that builds is not asked.

#include "platform/command_runner.h"
#include "platform/conn_type_map.h"
#include "platform/image_id.h"
#include "platform/system_identity.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

// Which clients are installed decides about registry names only.
int command_status(const std::string& /*command*/) {
    return EXIT_FAILURE;
}

ImageID ImageID::current() {
    return {};
}

unsigned current_image_type() {
    return 0;
}

namespace {

constexpr std::uint32_t kHighestImageType = 10;

using Names = std::vector<std::string>;

Names names_of(std::uint32_t image_type) {
    Names names;
    for (const auto& [registry, display] : conn_type_pairs(image_type)) {
        names.push_back(display);
    }
    return names;
}

// Only such a name is the same word in every shell.
bool is_plain_word(const std::string& name) {
    const char* plain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";
    return !name.empty() && name.find_first_not_of(plain) == std::string::npos;
}

void print_arm(const std::string& pattern, const Names& names) {
    std::cout << "        " << pattern << ") set --";
    for (const std::string& name : names) {
        std::cout << ' ' << name;
    }
    std::cout << " ;;\n";
}

}  // namespace

int main() {
    Names all;
    for (std::uint32_t type = 1; type <= kHighestImageType; ++type) {
        const Names names = names_of(type);
        if (!std::all_of(names.begin(), names.end(), is_plain_word)) {
            std::cerr << "completion_types: a name of image type " << type << " is no plain word\n";
            return EXIT_FAILURE;
        }
        print_arm(std::to_string(type), names);
        std::copy_if(names.begin(), names.end(), std::back_inserter(all), [&](const auto& name) {
            return std::find(all.begin(), all.end(), name) == all.end();
        });
    }
    print_arm("*", all);
    return std::cout.flush() ? EXIT_SUCCESS : EXIT_FAILURE;
}
