#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

using Words = std::vector<std::string>;

// The commands, each in words, that a shell makes of a line. None when the line ends inside a
// quoted part. Whatever else has a meaning of its own for the shell is a finding: it would make
// data of a file act.
std::optional<std::vector<Words>> shell_commands(std::string_view line);
