#include "tools/device/failure.h"
#include "tools/device/file_work.h"
#include "tools/device/ways.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace {

[[noreturn]] void fail(const std::string& subject) {
    throw WayFailure(errno_text(subject));
}

void bind(const std::filesystem::path& from, const std::filesystem::path& to, unsigned long how) {
    if (mount(from.c_str(), to.c_str(), nullptr, MS_BIND | how, nullptr) != 0) {
        fail("mount on " + to.string());
    }
}

// A build tree or a kept device below the host's /tmp would vanish behind the private one: its
// topmost folder is shown there too.
void keep_in_sight(const std::filesystem::path& needed, const std::filesystem::path& tmp) {
    if (!lies_within(needed, "/tmp")) {
        return;
    }
    const auto name = *std::next(needed.begin(), 2);
    const std::filesystem::path shown = std::filesystem::path("/tmp") / name;
    make_folders(tmp / name);
    bind(shown, tmp / name, 0);
}

void bind_private_folders(const Luggage& luggage) {
    const DeviceFolder& device = luggage.device;
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        fail("private mounts");
    }
    keep_in_sight(device.path(), device.tmp());
    keep_in_sight(luggage.programs, device.tmp());
    bind(device.etc(), "/etc", 0);
    bind(device.tmp(), "/tmp", MS_REC);
}

void write_setting(const char* path, const std::string& text) {
    const FileHandle file(open(path, O_WRONLY | O_CLOEXEC));
    const auto size = static_cast<ssize_t>(text.size());
    if (!file.is_open() || write(file.get(), text.data(), text.size()) != size) {
        fail(path);
    }
}

}  // namespace

void enter_namespace(const Luggage& luggage) {
    if (unshare(CLONE_NEWNS) != 0) {
        fail("new mount namespace");
    }
    bind_private_folders(luggage);
}

void enter_user_namespace(const Luggage& luggage) {
    const std::string user = std::to_string(geteuid());
    const std::string group = std::to_string(getegid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        fail("new user namespace");
    }
    write_setting("/proc/self/setgroups", "deny");
    write_setting("/proc/self/uid_map", "0 " + user + " 1");
    write_setting("/proc/self/gid_map", "0 " + group + " 1");
    bind_private_folders(luggage);
}
