#include "platform/network_settings.h"

#include "common/argument_check.h"
#include "common/file_handle.h"
#include "common/string_tokens.h"
#include "platform/command_runner.h"

#include <sys/types.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

namespace {

constexpr const char kListCommand[] =
    "dbus-send --system --print-reply --dest=org.freedesktop.NetworkManagerSystemSettings "
    "/org/freedesktop/NetworkManagerSettings "
    "org.freedesktop.NetworkManagerSettings.ListConnections";
constexpr std::string_view kConnectionPath = "/org/freedesktop/NetworkManagerSettings/";
constexpr std::size_t kListBlock = 2048;
constexpr std::size_t kReplyBlock = 2047;
constexpr std::size_t kSettingBlock = 4096;

std::string settings_command(int number, const char* function) {
    // The number has room for one digit.
    check_argument(number >= 0 && number <= 9, "number >= 0 && number <= 9",
                   {"platform/network_settings", __LINE__, function});
    return "dbus-send --system --print-reply --dest=org.freedesktop.NetworkManagerSystemSettings " +
           std::string(kConnectionPath) + std::to_string(number) +
           "  org.freedesktop.NetworkManagerSettings.Connection.GetSettings";
}

// Hands the command's output to `use` in blocks of at most `block_size` bytes, each up to its first
// NUL. False when the command could not be started.
template <class Use>
bool read_blocks(const std::string& command, std::size_t block_size, Use use) {
    std::FILE* raw = nullptr;
    pid_t process = -1;
    if (shell_popen(raw, process, "%s", command.c_str()) != 0) {
        return false;
    }
    FileHandle stream(raw);
    std::string block(block_size, '\0');
    while (const std::size_t got = std::fread(block.data(), 1, block_size, stream.get())) {
        use(std::string(block.data(), strnlen(block.data(), got)));
    }
    stream.reset();
    shell_wait(process);
    return true;
}

// Replies are expected to fit one block: each overwrites the one before.
bool read_last_block(const std::string& command, std::size_t block_size, std::string& last) {
    return read_blocks(command, block_size, [&](std::string block) { last = std::move(block); });
}

// The number at the start of the text; without one `number` stays as it is. One that does not fit
// becomes the nearest that does, which no connection has.
void read_number(const char* text, int& number) {
    constexpr int decimal = 10;
    char* end = nullptr;
    const long value = std::strtol(text, &end, decimal);
    if (end != text) {
        number = static_cast<int>(std::clamp<long>(value, INT_MIN, INT_MAX));
    }
}

int find_connection(bool (*passes)(int number)) {
    int result = 0;
    std::string listing;
    if (!read_last_block(kListCommand, kListBlock, listing)) {
        std::printf("Failed to execute:%s\n", kListCommand);
        return 0;
    }
    std::size_t at = listing.find(kConnectionPath);
    while (at != std::string::npos) {
        at += kConnectionPath.size();
        read_number(listing.c_str() + at, result);
        if (passes(result)) {
            return result;
        }
        at = listing.find(kConnectionPath, at);
    }
    return result;
}

bool read_reply(int number, const char* function, std::string& command, std::string& reply) {
    command = settings_command(number, function);
    return read_blocks(command, kReplyBlock, [&](const std::string& block) { reply += block; });
}

// The name that a line of a settings reply gives, at most 63 characters before its closing quote is
// dropped; empty when it gives none.
std::string setting_name(const std::string& line) {
    const std::size_t at = line.find("string \"");
    std::array<char, 64> name{};
    if (at != std::string::npos) {
        static_cast<void>(std::sscanf(line.c_str() + at, "string \"%63s", name.data()));
    }
    std::string text = name.data();
    if (!text.empty()) {
        text.pop_back();
    }
    return text;
}

// What stands between the line's first two double quotes.
std::string_view quoted_value(std::string_view line) {
    const std::size_t opening = line.find('"');
    if (opening == std::string_view::npos) {
        return {};
    }
    line.remove_prefix(opening + 1);
    return line.substr(0, line.find('"'));
}

}  // namespace

int find_wired_connection() {
    return find_connection(is_wired_connection);
}

int find_wireless_connection() {
    return find_connection(is_wireless_connection);
}

bool is_wired_connection(int number) {
    std::string command;
    std::string reply;
    if (!read_reply(number, "bool is_wired_connection(int)", command, reply)) {
        std::printf("Failed to execute:%s\n", command.c_str());
        return true;
    }
    // Not at the very start, which is what is asked here, is also true of a reply without the text.
    return reply.find("802-3-ethernet") != 0;
}

bool is_wireless_connection(int number) {
    std::string command;
    std::string reply;
    if (!read_reply(number, "bool is_wireless_connection(int)", command, reply)) {
        std::printf("Failed to execute %s\n", command.c_str());
        return false;
    }
    return reply.find("802-11-wireless") != 0;
}

void get_connection_setting(int number, const char* name, char* out) {
    const std::string command =
        settings_command(number, "void get_connection_setting(int, const char*, char*)");
    std::string reply;
    if (!read_last_block(command, kSettingBlock, reply)) {
        std::printf("Failed to execute:%s\n", command.c_str());
        return;
    }
    const StringTokens lines(reply.c_str(), 0, "\n");
    for (int i = 0; i + 2 < lines.count(); ++i) {
        if (lines.getToken(i).find("dict entry") == std::string::npos ||
            setting_name(lines.getToken(i + 1)) != name) {
            continue;
        }
        const std::string value_line = lines.getToken(i + 2);
        const std::string_view value = quoted_value(value_line);
        value.copy(out, value.size());
    }
}
