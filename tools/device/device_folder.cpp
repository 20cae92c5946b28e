#include "tools/device/device_folder.h"

#include "tools/device/failure.h"
#include "tools/device/file_work.h"
#include "tools/device/identity.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace {

struct TextFile {
    std::string_view name;
    std::string_view text;
};

constexpr std::array base_files = {
    TextFile{"passwd", "root:x:0:0:root:/root:/bin/sh\n"},
    TextFile{"group", "root:x:0:\n"},
    TextFile{"nsswitch.conf", "passwd: files\ngroup: files\nhosts: files\n"},
    TextFile{"hosts", "127.0.0.1 localhost\n"},
};

bool is_private_place(const std::filesystem::path& folder) {
    return lies_within(folder, "/etc") || lies_within(folder, "/tmp");
}

void add_from_environment(std::vector<std::filesystem::path>& folders, const char* name,
                          const char* below) {
    const char* value = std::getenv(name);
    if (value == nullptr || *value != '/') {
        return;
    }
    const auto folder = (std::filesystem::path(value) / below).lexically_normal();
    if (!is_private_place(folder)) {
        folders.push_back(folder);
    }
}

// Beside the program comes first: a build tree has room for its own devices, also below /tmp. An
// installed program leaves nothing there, as its package could not remove that.
std::vector<std::filesystem::path> work_folders(const std::filesystem::path& programs) {
    std::vector<std::filesystem::path> folders;
    if (!lies_within(programs, "/usr")) {
        folders.push_back(programs.parent_path() / "device-work");
    }
    add_from_environment(folders, "XDG_CACHE_HOME", "corvik-device");
    add_from_environment(folders, "HOME", ".cache/corvik-device");
    add_from_environment(folders, "XDG_RUNTIME_DIR", "corvik-device");
    return folders;
}

/// The first work folder that can be written; empty when there is none.
std::filesystem::path find_work_folder(const std::filesystem::path& programs) {
    for (const std::filesystem::path& folder : work_folders(programs)) {
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        if (!error && access(folder.c_str(), W_OK | X_OK) == 0) {
            return std::filesystem::canonical(folder);
        }
    }
    return {};
}

std::filesystem::path make_fresh_folder(const std::filesystem::path& work) {
    if (work.empty()) {
        throw Failure(ExitStatus::cannot_create,
                      "no folder for a fresh device can be written; name one with --keep");
    }
    std::string name = (work / "run-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw Failure(ExitStatus::cannot_create, errno_text(name));
    }
    return name;
}

std::filesystem::path open_kept_folder(const std::filesystem::path& keep) {
    make_folders(keep);
    std::filesystem::path folder = std::filesystem::canonical(keep);
    if (folder == "/" || folder == "/tmp" || lies_within(folder, "/etc")) {
        throw Failure(ExitStatus::usage, folder.string() + " cannot hold a device");
    }
    return folder;
}

// Writing through such a link would change the host.
void refuse_way_out(const std::filesystem::path& inner, const std::filesystem::path& device) {
    if (!lies_within(std::filesystem::weakly_canonical(inner), device)) {
        throw Failure(ExitStatus::usage, inner.string() + " leads out of the device");
    }
}

void copy_sessions(const std::filesystem::path& from, const std::filesystem::path& to) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(from, error)) {
        if (entry.is_regular_file()) {
            copy_file(entry.path(), to / entry.path().filename(), 0644);
        }
    }
    if (error) {
        throw Failure(ExitStatus::no_input, from.string() + ": " + error.message());
    }
}

}  // namespace

DeviceFolder::DeviceFolder(const Options& options, const std::filesystem::path& programs) {
    const std::filesystem::path work = find_work_folder(programs);
    fresh_ = options.keep.empty();
    path_ = fresh_ ? make_fresh_folder(work) : open_kept_folder(options.keep);
    store_ = work.empty() ? path_ / "store" : work / "store";
    try {
        fill(options);
    } catch (...) {
        if (fresh_) {
            remove_tree(path_);
        }
        throw;
    }
}

DeviceFolder::~DeviceFolder() {
    if (fresh_ && !remove_tree(path_)) {
        std::cerr << "device: " << path_.string() << " could not be removed\n";
    }
}

void DeviceFolder::fill(const Options& options) {
    // The last of these files is written last: a device that could not be finished is still new.
    const bool is_new = !std::filesystem::exists(etc() / base_files.back().name);
    const std::filesystem::path sessions = etc() / "tavrin/connections";
    for (const auto& folder : {sessions, etc() / "regsh", tmp(), home(), client()}) {
        refuse_way_out(folder, path_);
        make_folders(folder);
    }
    if (chmod(tmp().c_str(), S_ISVTX | S_IRWXU | S_IRWXG | S_IRWXO) != 0) {
        throw Failure(ExitStatus::cannot_create, errno_text(tmp().string()));
    }
    if (is_new || options.names_identity()) {
        write_identity(options, etc());
    }
    if (is_new) {
        for (const TextFile& file : base_files) {
            write_file(etc() / file.name, file.text);
        }
    }
    if (!options.sessions.empty()) {
        copy_sessions(options.sessions, sessions);
    }
    if (!options.client.empty()) {
        copy_file(options.client, client() / "regsh", 0755);
    }
}
