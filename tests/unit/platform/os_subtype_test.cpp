#include "platform/os_subtype.h"

#include "tests/support/device_fixture.h"

#include <gtest/gtest.h>

#include <typeinfo>

namespace {

constexpr const char* kNoLock = "Failed to detect fslock/fsunlock.\n";

class OSVariant : public DeviceTest {
protected:
    static std::unique_ptr<OSSubType> For(unsigned image_type) {
        SetImageType(image_type);
        return create_os_subtype();
    }
};

const std::type_info& class_of(const OSSubType& variant) {
    return typeid(variant);
}

TEST_F(OSVariant, IsChosenByTheImageType) {
    EXPECT_EQ(class_of(*For(1)), typeid(OSSSylvex));
    EXPECT_EQ(class_of(*For(2)), typeid(OSSSylvexSqaushFS));
    EXPECT_EQ(class_of(*For(3)), typeid(OSSSylvexGT));
    for (unsigned type = 4; type <= 10; ++type) {
        EXPECT_EQ(class_of(*For(type)), typeid(OSSSylvex2)) << type;
    }
}

TEST_F(OSVariant, HoldsTheImageType) {
    for (unsigned type = 1; type <= 10; ++type) {
        EXPECT_EQ(For(type)->image_type(), static_cast<std::int32_t>(type));
    }
}

TEST_F(OSVariant, WithoutIdentity) {
    const auto variant = create_os_subtype();
    EXPECT_EQ(class_of(*variant), typeid(OSSSylvex2));
    EXPECT_EQ(variant->image_type(), 10);
}

TEST_F(OSVariant, WithUnreadableIdentity) {
    WriteImageID("DXST001");
    WriteSystemInfo("PRODUCT_NAME=\"Other\"\n");
    const auto variant = create_os_subtype();
    EXPECT_EQ(class_of(*variant), typeid(OSSSylvex2));
    EXPECT_EQ(variant->image_type(), 10);
}

TEST_F(OSVariant, IdentityIsReadWhenItIsMade) {
    const auto variant = For(3);
    SetImageType(9);
    EXPECT_EQ(variant->image_type(), 3);
}

TEST_F(OSVariant, DirectoriesOfSqaushFS) {
    const auto variant = For(2);
    EXPECT_STREQ(variant->sbin_dir(), "/writable/etc/zoltrad/bin");
    EXPECT_STREQ(variant->bin_dir(), "/writable/etc/zoltrad/bin");
    EXPECT_STREQ(variant->etc_dir(), "/writable/etc");
}

TEST_F(OSVariant, DirectoriesOfAllOthers) {
    for (const unsigned type : {1U, 3U, 4U, 5U, 6U, 7U, 8U, 9U, 10U}) {
        const auto variant = For(type);
        EXPECT_STREQ(variant->sbin_dir(), "/usr/sbin") << type;
        EXPECT_STREQ(variant->bin_dir(), "/usr/bin") << type;
        EXPECT_STREQ(variant->etc_dir(), "/etc") << type;
    }
}

class OtherBin : public OSSSylvexSqaushFS {
public:
    using OSSSylvexSqaushFS::OSSSylvexSqaushFS;
    const char* bin_dir() const override { return "/other"; }
};

TEST(OSSSylvexSqaushFSDirectories, SbinAsksTheObjectForItsBin) {
    EXPECT_STREQ(OtherBin(ImageID()).sbin_dir(), "/other");
}

TEST_F(OSVariant, GTHasNoLock) {
    const auto variant = For(3);
    EXPECT_FALSE(variant->has_fslock());
    EXPECT_EQ(captured_stderr([&] { variant->fs_lock(); }), kNoLock);
    EXPECT_EQ(captured_stderr([&] { variant->fs_unlock(); }), kNoLock);
}

// A build whose lock tool is missing whatever the machine has.
class WithoutLock : public OSSSylvex2 {
public:
    WithoutLock() : OSSSylvex2(ImageID()) {}
    bool has_fslock() const override { return false; }
};

TEST_F(OSVariant, MissingLockToolIsReported) {
    WithoutLock variant;
    EXPECT_EQ(captured_stderr([&] { variant.fs_lock(); }), kNoLock);
    EXPECT_EQ(captured_stderr([&] { variant.fs_unlock(); }), kNoLock);
}

class NetworkProbe : public OSVariant {
protected:
    void SetUp() override {
        OSVariant::SetUp();
        if (!HasFatalFailure()) {
            Programs().PutProgram("dbus-send", "echo \"$5\" >>\"$here/asked\"\n");
        }
    }
    std::string Asked() const { return file_content(Programs().Path("asked")); }
};

TEST_F(NetworkProbe, AsksForConnectionsOnSylvex2) {
    EXPECT_EQ(For(9)->probe_network(), 0);
    EXPECT_EQ(Asked(), "org.freedesktop.NetworkManagerSettings.ListConnections\n");
}

TEST_F(NetworkProbe, GivesZeroAlsoForAnotherConnection) {
    Programs().PutProgram("dbus-send",
                          "echo 'object path \"/org/freedesktop/NetworkManagerSettings/7\"'\n");
    EXPECT_EQ(For(9)->probe_network(), 0);
}

TEST_F(NetworkProbe, DoesNothingElsewhere) {
    for (const unsigned type : {1U, 2U, 3U}) {
        EXPECT_EQ(For(type)->probe_network(), 0) << type;
    }
    EXPECT_EQ(Asked(), "");
}

}  // namespace
