#pragma once

#include "tools/device/options.h"

#include <filesystem>

/// The folder that holds everything that belongs to one device: etc, tmp, home and client. A fresh
/// one is removed with the object, a kept one stays.
class DeviceFolder {
public:
    /// Opens or makes the kept folder, or makes a fresh one; fills in what a device always has.
    /// Throws Failure: usage when the kept folder cannot serve, cannot_create.
    DeviceFolder(const Options& options, const std::filesystem::path& programs);
    ~DeviceFolder();
    DeviceFolder(const DeviceFolder&) = delete;
    DeviceFolder& operator=(const DeviceFolder&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    [[nodiscard]] std::filesystem::path etc() const { return path_ / "etc"; }
    [[nodiscard]] std::filesystem::path tmp() const { return path_ / "tmp"; }
    [[nodiscard]] std::filesystem::path home() const { return path_ / "home"; }
    /// Holds the client given in place of the reference client, and what that client keeps.
    [[nodiscard]] std::filesystem::path client() const { return path_ / "client"; }
    /// Root of the file tree used where nothing can be mounted.
    [[nodiscard]] std::filesystem::path root() const { return path_ / "root"; }
    /// Copies of system programs, shared by all devices that have the same work folder.
    [[nodiscard]] const std::filesystem::path& store() const { return store_; }

private:
    void fill(const Options& options);

    std::filesystem::path path_;
    std::filesystem::path store_;
    bool fresh_ = false;
};
