#pragma once

#include "tools/device/device_folder.h"
#include "tools/device/options.h"

#include <filesystem>
#include <string>
#include <string_view>

/// Value of PATH on the device: the given client, corvik and regsh first.
std::string search_path(const Options& options, const DeviceFolder& device,
                        const std::filesystem::path& programs);

/// Absolute path of the program that `name` means with this search path. A name with a slash is
/// taken as it is, relative to the current folder. Empty when there is none.
std::filesystem::path find_program(const std::string& name, const std::string& path);

/// Turns the process's environment into the command's. `way` marks a process as running on a
/// device.
void set_environment(const Options& options, const DeviceFolder& device, const std::string& path,
                     std::string_view way);

/// The current folder of the process, as it may be looked for on the device again.
class StartFolder {
public:
    explicit StartFolder(const DeviceFolder& device);

    /// Goes to the same folder by name, or to the device's home when the name leads to another one
    /// now, and sets PWD. Throws WayFailure.
    void enter(const DeviceFolder& device) const;

private:
    std::filesystem::path path_;
    dev_t device_number_ = 0;
    ino_t file_number_ = 0;
};
