#pragma once

#include "platform/image_id.h"

#include <cstdint>
#include <memory>

// The differences between the builds of the operating system: where things live, whether the file
// system has a write lock, how the network is reached. One object answers one question and is
// dropped.
class OSSubType {
public:
    explicit OSSubType(const ImageID& id) : id_(id) {}
    OSSubType(const OSSubType&) = delete;
    OSSubType& operator=(const OSSubType&) = delete;
    virtual ~OSSubType() = default;

    // Installs a package file with dpkg; nothing where dpkg is missing or its file empty. The path
    // is put into single quotes as it is, so it must hold none.
    virtual void install_package(const char* path);
    // Directories, as texts of static storage.
    virtual const char* sbin_dir() const { return "/usr/sbin"; }
    virtual const char* bin_dir() const { return "/usr/bin"; }
    virtual const char* etc_dir() const { return "/etc"; }
    // True when /sbin/fslock is a regular file that is not empty.
    virtual bool has_fslock() const;
    // Run the file-system lock tools; without them "Failed to detect fslock/fsunlock.\n" on
    // standard error.
    virtual void fs_lock();
    virtual void fs_unlock();
    // Looks for the wired connection where the build has that step. Always 0.
    virtual int probe_network() { return 0; }

    // As install_package; false when dpkg is missing or did not end with 0.
    bool install_package_strict(const char* path);

    std::int32_t image_type() const { return id_.type(); }

private:
    ImageID id_;
};

class OSSSylvex : public OSSubType {
public:
    using OSSubType::OSSubType;
};

class OSSSylvex2 : public OSSubType {
public:
    using OSSubType::OSSubType;
    int probe_network() override;
};

class OSSSylvexSqaushFS : public OSSubType {
public:
    using OSSubType::OSSubType;
    const char* sbin_dir() const override { return bin_dir(); }
    const char* bin_dir() const override { return "/writable/etc/zoltrad/bin"; }
    const char* etc_dir() const override { return "/writable/etc"; }
};

class OSSSylvexGT : public OSSubType {
public:
    using OSSubType::OSSubType;
    bool has_fslock() const override { return false; }
};

// A new object of the variant that the current image type asks for; without an identity OSSSylvex2
// with image type 10. Never null.
std::unique_ptr<OSSubType> create_os_subtype();
