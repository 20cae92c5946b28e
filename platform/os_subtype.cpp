#include "platform/os_subtype.h"

#include "common/messages.h"
#include "platform/command_runner.h"
#include "platform/network_settings.h"

#include <sys/stat.h>

#include <cstdio>

namespace {

constexpr const char* kPackageTool = "/usr/bin/dpkg";
constexpr const char* kLockTool = "/sbin/fslock";

bool is_usable_file(const char* path) {
    struct stat status {};
    return ::stat(path, &status) == 0 && status.st_size > 0 && S_ISREG(status.st_mode);
}

void run_lock_tool(const OSSubType& variant, const char* tool) {
    if (variant.has_fslock()) {
        shell_exec("%s", tool);
    } else {
        print_message("Failed to detect fslock/fsunlock.\n");
    }
}

template <class Variant>
std::unique_ptr<OSSubType> make_variant(const ImageID& id) {
    return std::make_unique<Variant>(id);
}

struct VariantRow {
    std::int32_t type;
    std::unique_ptr<OSSubType> (*make)(const ImageID& id);
};
constexpr VariantRow kVariants[] = {
    {2, make_variant<OSSSylvexSqaushFS>},
    {3, make_variant<OSSSylvexGT>},
    {1, make_variant<OSSSylvex>},
};

}  // namespace

void OSSubType::install_package(const char* path) {
    install_package_strict(path);
}

bool OSSubType::install_package_strict(const char* path) {
    return is_usable_file(kPackageTool) &&
           shell_exec("%s -i '%s' > /dev/null 2>&1", kPackageTool, path) == 0;
}

bool OSSubType::has_fslock() const {
    return is_usable_file(kLockTool);
}

void OSSubType::fs_lock() {
    run_lock_tool(*this, "/sbin/fslock");
}

void OSSubType::fs_unlock() {
    run_lock_tool(*this, "/sbin/fsunlock");
}

int OSSSylvex2::probe_network() {
    find_wired_connection();
    return 0;
}

std::unique_ptr<OSSubType> create_os_subtype() {
    ImageID id;
    try {
        id = ImageID::current();
    } catch (const ImageIDException&) {
        // Without an identity the device counts as the default one.
    }
    for (const VariantRow& row : kVariants) {
        if (row.type == id.type()) {
            return row.make(id);
        }
    }
    return make_variant<OSSSylvex2>(id);
}
