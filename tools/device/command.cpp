#include "tools/device/command.h"

#include "tools/device/failure.h"
#include "tools/device/file_work.h"
#include "tools/device/ways.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <system_error>

namespace {

bool is_program(const std::filesystem::path& path) {
    std::error_code error;
    return std::filesystem::is_regular_file(path, error) && access(path.c_str(), X_OK) == 0;
}

void set_variable(const std::string& name, const std::string& value) {
    setenv(name.c_str(), value.c_str(), 1);
}

}  // namespace

std::string search_path(const Options& options, const DeviceFolder& device,
                        const std::filesystem::path& programs) {
    const std::string client = options.client.empty() ? "" : device.client().string() + ":";
    return client + programs.string() +
           ":/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
}

std::filesystem::path find_program(const std::string& name, const std::string& path) {
    if (name.find('/') != std::string::npos) {
        return std::filesystem::absolute(name);
    }
    std::istringstream folders(path);
    std::string folder;
    while (!name.empty() && std::getline(folders, folder, ':')) {
        std::filesystem::path candidate = std::filesystem::path(folder) / name;
        if (is_program(candidate)) {
            return candidate;
        }
    }
    return {};
}

void set_environment(const Options& options, const DeviceFolder& device, const std::string& path,
                     std::string_view way) {
    set_variable("PATH", path);
    set_variable("HOME", device.home().string());
    set_variable("CORVIK_DEVICE", std::string(way));
    for (const char* name : {"REGSH_DB", "TMPDIR", "OLDPWD"}) {
        unsetenv(name);
    }
    for (const std::string& setting : options.environment) {
        const std::size_t sign = setting.find('=');
        set_variable(setting.substr(0, sign), setting.substr(sign + 1));
    }
}

StartFolder::StartFolder(const DeviceFolder& device) {
    std::error_code error;
    path_ = std::filesystem::current_path(error);
    struct stat facts = {};
    if (error || stat(".", &facts) != 0) {
        path_.clear();
        return;
    }
    device_number_ = facts.st_dev;
    file_number_ = facts.st_ino;
    // A kept device may have its home inside its own file tree; the command knows the other name.
    if (lies_within(path_, device.root())) {
        const auto logical = "/" / path_.lexically_relative(device.root());
        if (lies_within(logical, device.path())) {
            path_ = logical;
        }
    }
}

void StartFolder::enter(const DeviceFolder& device) const {
    struct stat facts = {};
    const bool same = !path_.empty() && chdir(path_.c_str()) == 0 && stat(".", &facts) == 0 &&
                      facts.st_dev == device_number_ && facts.st_ino == file_number_;
    const std::filesystem::path folder = same ? path_ : device.home();
    if (!same && chdir(folder.c_str()) != 0) {
        throw WayFailure(errno_text(folder.string()));
    }
    set_variable("PWD", folder.string());
}
