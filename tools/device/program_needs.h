#pragma once

#include <filesystem>
#include <vector>

/// Absolute paths of the files that must be there for the program to start: the loader and the
/// shared libraries of a binary; the interpreter of a script with what that needs. Empty for a
/// static binary and for a file that is no program.
std::vector<std::filesystem::path> find_program_needs(const std::filesystem::path& program);
