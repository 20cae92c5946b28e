#include "tools/device/file_work.h"

#include "tools/device/failure.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <system_error>
#include <vector>

namespace {

void write_all(int descriptor, std::string_view text, const std::filesystem::path& path) {
    while (!text.empty()) {
        const ssize_t count = write(descriptor, text.data(), text.size());
        if (count < 0) {
            throw Failure(ExitStatus::cannot_create, errno_text(path.string()));
        }
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

// The process id keeps two devices that fill one folder from writing into the same new file.
std::filesystem::path new_name(const std::filesystem::path& path) {
    return path.string() + ".new-" + std::to_string(getpid());
}

FileHandle create(const std::filesystem::path& path, mode_t mode) {
    FileHandle file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!file.is_open()) {
        throw Failure(ExitStatus::cannot_create, errno_text(path.string()));
    }
    return file;
}

void rename_over(const std::filesystem::path& from, const std::filesystem::path& to) {
    if (rename(from.c_str(), to.c_str()) != 0) {
        const std::string reason = errno_text(to.string());
        unlink(from.c_str());
        throw Failure(ExitStatus::cannot_create, reason);
    }
}

void copy_bytes(int from, int to, const std::filesystem::path& name) {
    std::array<char, 65536> block;
    while (true) {
        const ssize_t count = read(from, block.data(), block.size());
        if (count < 0) {
            throw Failure(ExitStatus::no_input, errno_text(name.string()));
        }
        if (count == 0) {
            return;
        }
        write_all(to, std::string_view(block.data(), static_cast<std::size_t>(count)), name);
    }
}

struct statx look_at(int folder, const char* name) {
    struct statx result = {};
    const unsigned flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
    const unsigned wanted = STATX_TYPE | STATX_MNT_ID;
    if (statx(folder, name, static_cast<int>(flags), wanted, &result) != 0) {
        result.stx_mask = 0;
    }
    return result;
}

bool same_mount(const struct statx& one, const struct statx& other) {
    const bool numbered = ((one.stx_mask & other.stx_mask) & STATX_MNT_ID) != 0;
    return one.stx_dev_major == other.stx_dev_major && one.stx_dev_minor == other.stx_dev_minor &&
           (!numbered || one.stx_mnt_id == other.stx_mnt_id);
}

std::vector<std::string> names_in(int folder) {
    std::vector<std::string> names;
    const int copy = fcntl(folder, F_DUPFD_CLOEXEC, 0);
    const auto close_listing = [](DIR* listing) { closedir(listing); };
    const std::unique_ptr<DIR, decltype(close_listing)> listing(
        copy < 0 ? nullptr : fdopendir(copy), close_listing);
    if (!listing) {
        return names;
    }
    while (const dirent* entry = readdir(listing.get())) {
        const std::string name = static_cast<const char*>(entry->d_name);
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    return names;
}

bool remove_below(int parent, const char* name, const struct statx& top) {
    const struct statx entry = look_at(parent, name);
    if ((entry.stx_mode & S_IFMT) != S_IFDIR) {
        return unlinkat(parent, name, 0) == 0 || errno == ENOENT;
    }
    if (!same_mount(entry, top)) {
        return false;
    }
    FileHandle folder(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder.is_open() && fchmodat(parent, name, S_IRWXU, 0) == 0) {
        folder = FileHandle(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    }
    if (!folder.is_open()) {
        return unlinkat(parent, name, AT_REMOVEDIR) == 0;
    }
    for (const std::string& inner : names_in(folder.get())) {
        remove_below(folder.get(), inner.c_str(), top);
    }
    return unlinkat(parent, name, AT_REMOVEDIR) == 0 || errno == ENOENT;
}

}  // namespace

std::string errno_text(const std::string& subject) {
    return subject + ": " + std::generic_category().message(errno);
}

FileHandle& FileHandle::operator=(FileHandle&& other) noexcept {
    if (this != &other) {
        reset();
        descriptor_ = other.release();
    }
    return *this;
}

int FileHandle::release() {
    const int descriptor = descriptor_;
    descriptor_ = -1;
    return descriptor;
}

void FileHandle::reset() {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
    descriptor_ = -1;
}

bool lies_within(const std::filesystem::path& path, const std::filesystem::path& folder) {
    auto part = path.begin();
    for (const auto& name : folder) {
        if (part == path.end() || *part != name) {
            return false;
        }
        ++part;
    }
    return true;
}

void make_folders(const std::filesystem::path& folder) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) {
        throw Failure(ExitStatus::cannot_create, folder.string() + ": " + error.message());
    }
}

void write_file(const std::filesystem::path& path, std::string_view text) {
    const std::filesystem::path fresh = new_name(path);
    const FileHandle file = create(fresh, 0644);
    write_all(file.get(), text, fresh);
    rename_over(fresh, path);
}

void copy_file(const std::filesystem::path& from, const std::filesystem::path& to, mode_t mode) {
    const FileHandle source(open(from.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat facts = {};
    if (!source.is_open() || fstat(source.get(), &facts) != 0) {
        throw Failure(ExitStatus::no_input, errno_text(from.string()));
    }
    const std::filesystem::path fresh = new_name(to);
    const FileHandle target = create(fresh, mode);
    copy_bytes(source.get(), target.get(), from);
    const std::array<timespec, 2> times = {facts.st_atim, facts.st_mtim};
    fchmod(target.get(), mode);
    futimens(target.get(), times.data());
    rename_over(fresh, to);
}

std::string read_text(const std::filesystem::path& path) {
    std::string text;
    const FileHandle file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 4096> block;
    while (file.is_open()) {
        const ssize_t count = read(file.get(), block.data(), block.size());
        if (count <= 0) {
            break;
        }
        text.append(block.data(), static_cast<std::size_t>(count));
    }
    return text;
}

bool remove_tree(const std::filesystem::path& folder) {
    const struct statx top = look_at(AT_FDCWD, folder.c_str());
    if (top.stx_mask == 0) {
        return errno == ENOENT;
    }
    return remove_below(AT_FDCWD, folder.c_str(), top);
}
