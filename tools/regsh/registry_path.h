#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace regsh {

// Directories and keys lie at most this deep below the root, so that walks over the tree are
// bounded.
inline constexpr std::size_t maximum_depth = 64;

// The names from the root down to an entry; empty for the root itself.
using RegistryPath = std::vector<std::string>;

// Splits a path such as "root/system/model". Blanks at the end of the path do not occur here (the
// shell drops them); slashes at its end are ignored. Throws UsageError when the first name is not
// "root", a name is empty or holds a control character, or the path is deeper than maximum_depth.
RegistryPath parse_path(std::string_view text);

// The opposite of parse_path.
std::string to_text(const RegistryPath& path);

// Why the text cannot be the name of an entry; empty when it can.
std::string_view name_defect(std::string_view name);

// True when the text holds a control character that an XML document cannot carry: any below 0x20
// except tab, line feed and carriage return.
bool has_forbidden_character(std::string_view text);

}  // namespace regsh
