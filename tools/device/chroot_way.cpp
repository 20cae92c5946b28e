#include "tools/device/failure.h"
#include "tools/device/file_work.h"
#include "tools/device/program_tree.h"
#include "tools/device/ways.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

// What the command and the scripts around it may call.
constexpr std::array system_programs = {
    "/bin/sh",          "/bin/bash",           "/bin/cat",       "/bin/chmod",
    "/bin/cp",          "/bin/date",           "/bin/dd",        "/bin/echo",
    "/bin/false",       "/bin/grep",           "/bin/kill",      "/bin/ln",
    "/bin/ls",          "/bin/mkdir",          "/bin/mktemp",    "/bin/mv",
    "/bin/pwd",         "/bin/readlink",       "/bin/rm",        "/bin/rmdir",
    "/bin/sed",         "/bin/sleep",          "/bin/tar",       "/bin/touch",
    "/bin/true",        "/bin/uname",          "/usr/bin/[",     "/usr/bin/basename",
    "/usr/bin/cmp",     "/usr/bin/cut",        "/usr/bin/diff",  "/usr/bin/dirname",
    "/usr/bin/dpkg",    "/usr/bin/dpkg-deb",   "/usr/bin/env",   "/usr/bin/expr",
    "/usr/bin/find",    "/usr/bin/head",       "/usr/bin/id",    "/usr/bin/od",
    "/usr/bin/printf",  "/usr/bin/seq",        "/usr/bin/sort",  "/usr/bin/stat",
    "/usr/bin/tail",    "/usr/bin/tee",        "/usr/bin/test",  "/usr/bin/timeout",
    "/usr/bin/tr",      "/usr/bin/uniq",       "/usr/bin/wc",    "/usr/bin/xargs",
    "/usr/bin/yes",     "/usr/bin/dbus-send",  "/sbin/fslock",   "/sbin/fsunlock",
    "/usr/sbin/fslock", "/usr/bin/dpkg-split", "/sbin/ldconfig", "/sbin/start-stop-daemon",
};

constexpr std::array own_programs = {"corvik", "regsh"};

constexpr std::array plain_folders = {"/dev", "/proc", "/root", "/run", "/sys", "/var/lib/dpkg"};

struct DeviceNode {
    const char* path;
    unsigned major;
    unsigned minor;
};

constexpr std::array device_nodes = {
    DeviceNode{"/dev/null", 1, 3},    DeviceNode{"/dev/zero", 1, 5},
    DeviceNode{"/dev/full", 1, 7},    DeviceNode{"/dev/random", 1, 8},
    DeviceNode{"/dev/urandom", 1, 9}, DeviceNode{"/dev/tty", 5, 0},
};

#if defined(__SANITIZE_ADDRESS__)
constexpr bool is_sanitized = true;
#elif defined(__has_feature)
constexpr bool is_sanitized = __has_feature(address_sanitizer);
#else
constexpr bool is_sanitized = false;
#endif

[[noreturn]] void fail(const std::string& subject) {
    throw WayFailure(errno_text(subject));
}

// Nothing can be bound here, so the device's folders must really stand where the command looks for
// them; the names that the host knows become links to there.
void move_folder(const std::filesystem::path& known, const std::filesystem::path& place) {
    const std::filesystem::path now = std::filesystem::canonical(known);
    if (now == place) {
        return;
    }
    make_folders(place.parent_path());
    std::filesystem::remove(place);
    std::filesystem::rename(now, place);
    std::filesystem::remove(known);
    std::filesystem::create_symlink(std::filesystem::relative(place, known.parent_path()), known);
}

void link_inside(const std::filesystem::path& name, const std::filesystem::path& place) {
    if (!std::filesystem::is_symlink(name)) {
        std::filesystem::create_symlink(std::filesystem::relative(place, name.parent_path()), name);
    }
}

void move_folders(const DeviceFolder& device) {
    const std::filesystem::path root = device.root();
    const std::filesystem::path inside = root / device.path().relative_path();
    make_folders(root);
    move_folder(device.etc(), root / "etc");
    move_folder(device.tmp(), root / "tmp");
    make_folders(inside);
    move_folder(device.home(), inside / "home");
    move_folder(device.client(), inside / "client");
    link_inside(inside / "etc", root / "etc");
    link_inside(inside / "tmp", root / "tmp");
}

bool works(const std::filesystem::path& node) {
    return FileHandle(open(node.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY)).is_open();
}

// A plain file takes what is written to /dev/null and stays harmless; the other nodes have no such
// stand-in and are left out where they cannot be made.
void add_device_nodes(const ProgramTree& tree) {
    constexpr mode_t mode = S_IFCHR | 0666;
    for (const DeviceNode& node : device_nodes) {
        const std::filesystem::path place = tree.place_of(node.path);
        if (mknod(place.c_str(), mode, makedev(node.major, node.minor)) == 0) {
            chmod(place.c_str(), 0666);
        }
    }
    const std::filesystem::path null = tree.place_of("/dev/null");
    if (!works(null)) {
        std::filesystem::remove(null);
        write_file(null, "");
        chmod(null.c_str(), 0666);
    }
    link_inside(tree.place_of("/dev/fd"), tree.place_of("/proc/self/fd"));
    link_inside(tree.place_of("/dev/stdin"), tree.place_of("/proc/self/fd/0"));
    link_inside(tree.place_of("/dev/stdout"), tree.place_of("/proc/self/fd/1"));
    link_inside(tree.place_of("/dev/stderr"), tree.place_of("/proc/self/fd/2"));
}

// Sanitized programs look up their name and their options in /proc, and their leak check needs a
// true one, which cannot be had here: they get a few files, and no leak check.
void make_fit_for_sanitizers(ProgramTree& tree) {
    std::string settings;
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS"}) {
        const char* given = std::getenv(name);
        settings += name;
        settings += "=";
        settings += given == nullptr ? "" : given;
        settings += ":detect_leaks=0";
        settings += '\0';
    }
    tree.add_folder("/proc/self");
    write_file(tree.place_of("/proc/self/environ"), settings);
    link_inside(tree.place_of("/proc/self/exe"), tree.place_of("/bin/sh"));
}

void add_programs(ProgramTree& tree, const Luggage& luggage) {
    for (const char* program : system_programs) {
        tree.add_program(program);
    }
    for (const char* program : own_programs) {
        tree.add_program(luggage.programs / program);
    }
    tree.add_needs_of(luggage.device.client() / "regsh");
    for (const std::filesystem::path& command : luggage.commands) {
        if (lies_within(command, luggage.device.path())) {
            tree.add_needs_of(command);
        } else {
            tree.add_program(command);
        }
    }
}

}  // namespace

void enter_chroot(const Luggage& luggage) {
    // Asks for the right before anything is prepared.
    if (chroot("/") != 0) {
        fail("chroot");
    }
    move_folders(luggage.device);
    ProgramTree tree(luggage.device.root(), luggage.device.store());
    for (const char* folder : plain_folders) {
        tree.add_folder(folder);
    }
    add_programs(tree, luggage);
    add_device_nodes(tree);
    if (is_sanitized) {
        make_fit_for_sanitizers(tree);
    }
    if (chroot(luggage.device.root().c_str()) != 0 || chdir("/") != 0) {
        fail("chroot");
    }
}
