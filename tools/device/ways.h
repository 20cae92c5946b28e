#pragma once

#include "tools/device/device_folder.h"

#include <array>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <vector>

/// Why a way does not work on this machine.
class WayFailure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What a way has to bring inside.
struct Luggage {
    const DeviceFolder& device;
    std::filesystem::path programs;               ///< folder of corvik, regsh and this program
    std::vector<std::filesystem::path> commands;  ///< absolute paths that are going to be executed
};

/// One way to give a process an /etc and a /tmp of its own.
struct Way {
    std::string_view name;
    /// Changes the calling process for good; meant for a child that executes a command next. Throws
    /// WayFailure; the process must then end.
    void (*enter)(const Luggage& luggage);
};

/// All ways in the order in which they are tried.
const std::array<Way, 3>& all_ways();

/// The way of that name, or null.
const Way* find_way(std::string_view name);

// The ways themselves.
void enter_namespace(const Luggage& luggage);
void enter_user_namespace(const Luggage& luggage);
void enter_chroot(const Luggage& luggage);
