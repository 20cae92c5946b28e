#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <vector>

/// A file tree that holds programs under the paths they have on this machine, with the shared
/// libraries they need, so that they run with that tree as their root. System files stand in it as
/// hard links to copies in a store that outlives the tree; other files are linked as they are.
class ProgramTree {
public:
    /// Both folders are made when missing. Throws Failure (cannot_create), as every operation does.
    ProgramTree(std::filesystem::path root, std::filesystem::path store);

    /// Adds a program and what it needs: libraries, or the interpreter of a script. A program that
    /// does not exist is left out.
    void add_program(const std::filesystem::path& program);

    /// Adds only what the program needs.
    void add_needs_of(const std::filesystem::path& program);

    /// Adds one file under its path, with the symbolic links that lead to it.
    void add_file(const std::filesystem::path& file);

    /// Adds an empty folder.
    void add_folder(const std::filesystem::path& folder);

    /// Where an absolute path of the machine stands in the tree.
    [[nodiscard]] std::filesystem::path place_of(const std::filesystem::path& path) const;

private:
    std::vector<std::filesystem::path> needs_of(const std::filesystem::path& program);
    void add_link(const std::filesystem::path& link, const std::filesystem::path& target);
    void put(const std::filesystem::path& file, const std::filesystem::path& place);
    std::filesystem::path stored(const std::filesystem::path& file);

    std::filesystem::path root_;
    std::filesystem::path store_;
    std::set<std::filesystem::path> done_;
};
