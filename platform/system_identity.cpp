#include "platform/system_identity.h"

#include "common/file_handle.h"
#include "common/string_tokens.h"
#include "platform/command_runner.h"
#include "platform/os_subtype.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace {

constexpr const char* kSystemInfo = "/etc/systeminfo";
constexpr const char* kAskProductConfig =
    R"(cat /etc/systeminfo | grep PRODUCT_CONFIG | head -n1 | cut -d '"' -f 2)";

// The file's text when it is one of which the pipeline's programs make the same on every device.
std::optional<std::string> plain_system_info() {
    struct stat status {};
    if (::stat(kSystemInfo, &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;  // what is read here would be lost to the pipeline
    }
    // Less than the first line that is kept of a command.
    std::array<char, 1000> text;
    const FileHandle file(std::fopen(kSystemInfo, "rb"));
    const std::size_t size = file ? std::fread(text.data(), 1, text.size(), file.get()) : 0;
    const auto end = text.begin() + static_cast<std::ptrdiff_t>(size);
    const bool is_plain =
        size > 0 && size < text.size() && std::all_of(text.begin(), end, [](char c) {
            return (c >= ' ' && c <= '~') || c == '\n' || c == '\t';
        });
    return is_plain ? std::optional(std::string(text.begin(), end)) : std::nullopt;
}

// What the pipeline says of a plain text.
std::string product_config_of(std::string_view text) {
    const std::size_t key = text.find("PRODUCT_CONFIG");
    if (key == std::string_view::npos) {
        return "";
    }
    const std::size_t start = text.rfind('\n', key) + 1;
    std::string_view value = text.substr(start, text.find('\n', key) - start);
    const std::size_t quote = value.find('"');
    if (quote != std::string_view::npos) {
        value.remove_prefix(quote + 1);
        value = value.substr(0, value.find('"'));
    }
    std::string trimmed(value);
    return trim_string(trimmed.data(), kTrimBoth);
}

}  // namespace

// Five programs are a long way to a word that nearly always stands in a plain file.
bool read_product_config(std::string& configuration) {
    if (const auto text = plain_system_info()) {
        configuration = product_config_of(*text);
        return true;
    }
    return run_command_first_line(kAskProductConfig, configuration);
}

unsigned current_image_type() {
    return static_cast<unsigned>(create_os_subtype()->image_type());
}

bool has_product_config(unsigned image_type) {
    return image_type >= 8 && image_type <= 10;
}

bool is_zero_product() {
    if (!has_product_config(current_image_type())) {
        return false;
    }
    std::string configuration;
    read_product_config(configuration);
    return configuration == "zero" || configuration == "Zero";
}
