#include "tools/device/view_probe.h"

#include "tools/device/failure.h"
#include "tools/device/ways.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>

namespace {

FileHandle open_folder(const std::filesystem::path& folder) {
    FileHandle handle(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!handle.is_open()) {
        throw WayFailure(errno_text(folder.string()));
    }
    return handle;
}

}  // namespace

ViewProbe::ViewProbe(const DeviceFolder& device) {
    sides_.push_back({"/etc", open_folder("/etc"), open_folder(device.etc())});
    sides_.push_back({"/tmp", open_folder("/tmp"), open_folder(device.tmp())});
}

void ViewProbe::check() const {
    for (const Side& side : sides_) {
        check_side(side);
    }
}

void ViewProbe::check_side(const Side& side) {
    const std::string mark = ".device-probe-" + std::to_string(getpid());
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
    const FileHandle file(openat(side.own.get(), mark.c_str(), flags, 0600));
    if (!file.is_open()) {
        throw WayFailure(errno_text("probe in " + std::string(side.name)));
    }
    const bool seen = access((std::string(side.name) + "/" + mark).c_str(), F_OK) == 0;
    const bool leaked = faccessat(side.host.get(), mark.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
    unlinkat(side.own.get(), mark.c_str(), 0);
    if (!seen || leaked) {
        throw WayFailure("the private " + std::string(side.name) +
                         (leaked ? " is the host's" : " is not seen"));
    }
}
