// Preloaded into a program that valgrind runs, moves it onto a device before it begins. Where
// devices are made by chroot valgrind cannot start on them, because they have no /proc; the program
// that it has already loaded can still go there.
//
//   CHROOT_PROGRAM=P   only the program of this name moves, not what starts valgrind
//   CHROOT_FIRST=D     the root of the device; the current folder becomes $HOME there
//
// Programs started by the program are left alone.

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const char* setting(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

__attribute__((constructor)) void move_onto_device() {
    constexpr int not_moved = 125;
    if (std::strcmp(program_invocation_short_name, setting("CHROOT_PROGRAM")) != 0) {
        return;
    }
    if (chroot(setting("CHROOT_FIRST")) != 0 || chdir(setting("HOME")) != 0) {
        std::perror("chroot_first");
        std::_Exit(not_moved);
    }
    unsetenv("LD_PRELOAD");
}

}  // namespace
