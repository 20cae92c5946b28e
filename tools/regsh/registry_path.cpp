#include "tools/regsh/registry_path.h"

#include "tools/regsh/node.h"

#include <algorithm>

namespace regsh {

namespace {

constexpr std::string_view root_name = "root";

bool is_control_character(char character) {
    return static_cast<unsigned char>(character) < 0x20;
}

std::vector<std::string> split_names(std::string_view text) {
    std::vector<std::string> names;
    while (true) {
        const std::size_t slash = text.find('/');
        names.emplace_back(text.substr(0, slash));
        if (slash == std::string_view::npos) {
            return names;
        }
        text.remove_prefix(slash + 1);
    }
}

[[noreturn]] void refuse(std::string_view text, std::string_view why) {
    throw UsageError("\"" + std::string(text) + "\" is not a registry path: " + std::string(why));
}

}  // namespace

std::string_view name_defect(std::string_view name) {
    if (name.empty()) {
        return "a name in it is empty";
    }
    if (name.find('/') != std::string_view::npos) {
        return "a name in it holds a slash";
    }
    if (std::any_of(name.begin(), name.end(), is_control_character)) {
        return "a name in it holds a control character";
    }
    return {};
}

bool has_forbidden_character(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char character) {
        return is_control_character(character) && character != '\t' && character != '\n' &&
               character != '\r';
    });
}

RegistryPath parse_path(std::string_view text) {
    std::string_view trimmed = text;
    while (trimmed.ends_with('/')) {
        trimmed.remove_suffix(1);
    }
    RegistryPath names = split_names(trimmed);
    if (names.front() != root_name) {
        refuse(text, "it does not begin with \"root\"");
    }
    names.erase(names.begin());
    for (const std::string& name : names) {
        const std::string_view defect = name_defect(name);
        if (!defect.empty()) {
            refuse(text, defect);
        }
    }
    if (names.size() > maximum_depth) {
        refuse(text, "it is deeper than " + std::to_string(maximum_depth) + " levels");
    }
    return names;
}

std::string to_text(const RegistryPath& path) {
    std::string text(root_name);
    for (const std::string& name : path) {
        text += '/';
        text += name;
    }
    return text;
}

}  // namespace regsh
