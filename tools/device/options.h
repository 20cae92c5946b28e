#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

/// Where a device gets its identity from.
enum class IdentitySource { any, systeminfo, imageid };

/// What the command line asks for; paths are as typed.
struct Options {
    std::optional<unsigned> image_type;  ///< 1 to 10; 0 for a device without identity
    IdentitySource identity = IdentitySource::any;
    bool zero = false;
    std::filesystem::path systeminfo;
    std::filesystem::path imageid;
    std::filesystem::path registry;
    std::filesystem::path sessions;
    std::filesystem::path client;
    std::filesystem::path keep;
    std::string way;
    std::vector<std::string> environment;  ///< NAME=VALUE, for the command alone
    bool describe = false;
    bool help = false;
    std::vector<std::string> command;  ///< empty: an interactive shell

    /// True when the identity of a kept device is to be made anew.
    [[nodiscard]] bool names_identity() const {
        return image_type || identity != IdentitySource::any || zero || !systeminfo.empty() ||
               !imageid.empty();
    }
};

/// Reads the arguments behind the program's name. Options end at "--" or at the first word that is
/// none. Throws Failure (usage).
Options read_options(const std::vector<std::string>& arguments);

/// The text of --help.
std::string help_text();
