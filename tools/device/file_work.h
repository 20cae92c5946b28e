#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <string_view>

/// Owner of one file descriptor; -1 means none.
class FileHandle {
public:
    explicit FileHandle(int descriptor = -1) : descriptor_(descriptor) {}
    FileHandle(FileHandle&& other) noexcept : descriptor_(other.release()) {}
    FileHandle& operator=(FileHandle&& other) noexcept;
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;
    ~FileHandle() { reset(); }

    [[nodiscard]] int get() const { return descriptor_; }
    [[nodiscard]] bool is_open() const { return descriptor_ >= 0; }
    int release();
    void reset();

private:
    int descriptor_;
};

/// True when `path` is `folder` itself or lies below it. Both are absolute; names are compared, not
/// files.
bool lies_within(const std::filesystem::path& path, const std::filesystem::path& folder);

/// Makes the folder and its parents, mode 0755 less the umask. Throws Failure (cannot_create).
void make_folders(const std::filesystem::path& folder);

/// Replaces the file as a whole: a reader sees the old content or the new one. Throws Failure
/// (cannot_create).
void write_file(const std::filesystem::path& path, std::string_view text);

/// Replaces `to` as a whole by a copy of `from`, with the given mode and the modification time of
/// `from`. Throws Failure: no_input when `from` cannot be read, cannot_create otherwise.
void copy_file(const std::filesystem::path& from, const std::filesystem::path& to, mode_t mode);

/// The whole content; empty when the file cannot be read.
std::string read_text(const std::filesystem::path& path);

/// Removes a folder with all below it. Symbolic links are removed, never followed, and what is
/// mounted below the folder is left alone. Returns false when something stayed behind.
bool remove_tree(const std::filesystem::path& folder);
