#include "tools/device/program_tree.h"

#include "tools/device/failure.h"
#include "tools/device/file_work.h"
#include "tools/device/program_needs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <sstream>
#include <system_error>
#include <utility>

namespace {

/// Names one state of a file: another file under the same path, or a changed one, has another text.
std::string fingerprint(const std::filesystem::path& file) {
    struct stat facts = {};
    if (stat(file.c_str(), &facts) != 0) {
        return {};
    }
    std::ostringstream text;
    text << file.string() << '\t' << facts.st_dev << ' ' << facts.st_ino << ' ' << facts.st_size
         << ' ' << facts.st_mtim.tv_sec << '.' << facts.st_mtim.tv_nsec;
    return text.str();
}

/// 64-bit FNV-1a, in hexadecimal digits.
std::string digest(const std::string& text) {
    std::uint64_t value = 14695981039346656037U;
    for (const char letter : text) {
        value = (value ^ static_cast<unsigned char>(letter)) * 1099511628211U;
    }
    std::ostringstream digits;
    digits << std::hex << value;
    return digits.str();
}

bool same_file(const std::filesystem::path& one, const std::filesystem::path& other) {
    struct stat first = {};
    struct stat second = {};
    if (lstat(one.c_str(), &first) != 0 || lstat(other.c_str(), &second) != 0) {
        return false;
    }
    if (first.st_dev == second.st_dev) {
        return first.st_ino == second.st_ino;
    }
    return first.st_size == second.st_size && first.st_mtim.tv_sec == second.st_mtim.tv_sec &&
           first.st_mtim.tv_nsec == second.st_mtim.tv_nsec;
}

bool is_private_place(const std::filesystem::path& path) {
    return lies_within(path, "/etc") || lies_within(path, "/tmp");
}

bool is_system_file(const std::filesystem::path& path) {
    const auto below = {"/usr", "/bin", "/sbin", "/lib", "/lib64", "/lib32"};
    return std::any_of(below.begin(), below.end(),
                       [&](const char* folder) { return lies_within(path, folder); });
}

/// The paths of a list of needs that still describes this program and its libraries; false when it
/// is out of date.
bool read_needs(const std::string& list, const std::string& program,
                std::vector<std::filesystem::path>& needs) {
    std::istringstream lines(list);
    std::string line;
    if (!std::getline(lines, line) || line != program) {
        return false;
    }
    while (std::getline(lines, line)) {
        const std::filesystem::path path = line.substr(0, line.find('\t'));
        if (fingerprint(path) != line) {
            return false;
        }
        needs.push_back(path);
    }
    return true;
}

}  // namespace

ProgramTree::ProgramTree(std::filesystem::path root, std::filesystem::path store)
    : root_(std::move(root)), store_(std::move(store)) {
    make_folders(root_);
    make_folders(store_);
}

void ProgramTree::add_program(const std::filesystem::path& program) {
    if (std::filesystem::exists(program)) {
        add_file(program);
        add_needs_of(program);
    }
}

void ProgramTree::add_needs_of(const std::filesystem::path& program) {
    for (const std::filesystem::path& need : needs_of(program)) {
        add_file(need);
    }
}

void ProgramTree::add_folder(const std::filesystem::path& folder) {
    make_folders(place_of(folder));
}

std::filesystem::path ProgramTree::place_of(const std::filesystem::path& path) const {
    return root_ / path.relative_path();
}

// Walks the path as the kernel would, and lays every link and folder on the way into the tree.
void ProgramTree::add_file(const std::filesystem::path& file) {
    if (!done_.insert(file).second) {
        return;
    }
    const std::filesystem::path names = file.relative_path();
    std::deque<std::filesystem::path> rest(names.begin(), names.end());
    std::filesystem::path at = "/";
    while (!rest.empty()) {
        const std::filesystem::path name = rest.front();
        rest.pop_front();
        if (name == ".." || name == ".") {
            at = name == ".." ? at.parent_path() : at;
            continue;
        }
        at /= name;
        std::error_code error;
        const auto kind = std::filesystem::symlink_status(at, error).type();
        if (kind == std::filesystem::file_type::directory) {
            make_folders(place_of(at));
            continue;
        }
        if (kind != std::filesystem::file_type::symlink) {
            put(at, place_of(at));
            return;
        }
        const std::filesystem::path target = std::filesystem::read_symlink(at);
        if (is_private_place((at.parent_path() / target).lexically_normal())) {
            // The link would end in the device's own /etc, where its target is not.
            put(std::filesystem::canonical(at), place_of(at));
            return;
        }
        add_link(at, target);
        at = target.is_absolute() ? std::filesystem::path("/") : at.parent_path();
        const std::filesystem::path steps = target.relative_path();
        rest.insert(rest.begin(), steps.begin(), steps.end());
    }
}

void ProgramTree::add_link(const std::filesystem::path& link, const std::filesystem::path& target) {
    std::error_code error;
    if (std::filesystem::read_symlink(place_of(link), error) == target && !error) {
        return;
    }
    std::filesystem::remove(place_of(link), error);
    std::filesystem::create_symlink(target, place_of(link), error);
    if (error) {
        throw Failure(ExitStatus::cannot_create, place_of(link).string() + ": " + error.message());
    }
}

void ProgramTree::put(const std::filesystem::path& file, const std::filesystem::path& place) {
    const std::filesystem::path source = is_system_file(file) ? stored(file) : file;
    if (same_file(source, place)) {
        return;
    }
    unlink(place.c_str());
    if (link(source.c_str(), place.c_str()) != 0) {
        copy_file(source, place, 0755);
    }
}

std::filesystem::path ProgramTree::stored(const std::filesystem::path& file) {
    const std::string name = digest(fingerprint(file)) + "-" + file.filename().string();
    std::filesystem::path copy = store_ / name;
    if (access(copy.c_str(), F_OK) != 0) {
        copy_file(file, copy, 0755);
    }
    return copy;
}

std::vector<std::filesystem::path> ProgramTree::needs_of(const std::filesystem::path& program) {
    const std::string now = fingerprint(program);
    const std::filesystem::path list = store_ / (digest(now) + ".needs");
    std::vector<std::filesystem::path> needs;
    if (read_needs(read_text(list), now, needs)) {
        return needs;
    }
    needs = find_program_needs(program);
    std::string text = now + "\n";
    for (const std::filesystem::path& need : needs) {
        text += fingerprint(need) + "\n";
    }
    write_file(list, text);
    return needs;
}
