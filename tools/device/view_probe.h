#pragma once

#include "tools/device/device_folder.h"
#include "tools/device/file_work.h"

#include <vector>

/// Proof that a process sees the device's /etc and /tmp and not the host's. Made before the process
/// changes its view, asked afterwards.
class ViewProbe {
public:
    /// Holds the host's and the device's folders open. Throws WayFailure.
    explicit ViewProbe(const DeviceFolder& device);

    /// Lays a file into each private folder and looks for it under the real name and in the host's
    /// folder. Throws WayFailure with what is wrong.
    void check() const;

private:
    struct Side {
        const char* name;
        FileHandle host;
        FileHandle own;
    };

    static void check_side(const Side& side);

    std::vector<Side> sides_;
};
