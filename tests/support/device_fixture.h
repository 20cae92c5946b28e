#pragma once

#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

inline std::string file_content(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

inline void write_text(const std::filesystem::path& path, const std::string& content) {
    std::ofstream stream(path, std::ios::binary);
    stream << content;
    if (!stream.flush()) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

// Whether this process has waited for everything that it started.
inline bool has_no_child() {
    return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

// Takes this process, and what it starts, the right to open anything more, for as long as it lives.
class NoMoreDescriptors {
public:
    NoMoreDescriptors() {
        getrlimit(RLIMIT_NOFILE, &before_);
        rlimit lowered = before_;
        lowered.rlim_cur = 0;
        if (setrlimit(RLIMIT_NOFILE, &lowered) != 0) {
            throw std::runtime_error("the limit of open files cannot be lowered");
        }
    }
    ~NoMoreDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
    NoMoreDescriptors(const NoMoreDescriptors&) = delete;
    NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;

private:
    rlimit before_{};
};

// A folder below /tmp whose scripts come first on PATH, for as long as it lives.
class ProgramFolder {
public:
    ProgramFolder() {
        if (mkdtemp(path_.data()) == nullptr) {
            throw std::runtime_error("no folder can be made below /tmp");
        }
        const char* before = std::getenv("PATH");
        search_path_ = before == nullptr ? "" : before;
        setenv("PATH", (path_ + ":" + search_path_).c_str(), 1);
    }
    ~ProgramFolder() {
        setenv("PATH", search_path_.c_str(), 1);
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ProgramFolder(const ProgramFolder&) = delete;
    ProgramFolder& operator=(const ProgramFolder&) = delete;

    std::string Path(const std::string& name) const { return path_ + "/" + name; }
    void Put(const std::string& name, const std::string& content) const {
        write_text(Path(name), content);
    }
    // A shell script; `$here` is this folder.
    void PutProgram(const std::string& name, const std::string& script) const {
        Put(name, "#!/bin/sh\nhere=${0%/*}\n" + script);
        std::filesystem::permissions(Path(name), std::filesystem::perms::owner_all);
    }

private:
    std::string path_ = "/tmp/unit_platform.XXXXXX";
    std::string search_path_;
};

// Runs on a simulated device only, and starts each test without an identity and with a folder of
// programs.
class DeviceTest : public testing::Test {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        if (std::getenv("CORVIK_DEVICE") == nullptr) {
            FAIL() << "This test writes below /etc and /tmp: run it on a simulated device "
                      "(device -- PROGRAM), which sets CORVIK_DEVICE.";
        }
        RemoveIdentity();
        programs_ = std::make_unique<ProgramFolder>();
    }

    void TearDown() override { programs_.reset(); }

    const ProgramFolder& Programs() const { return *programs_; }

    static void RemoveIdentity() {
        std::filesystem::remove_all(kSystemInfo);
        std::filesystem::remove_all(kImageID);
    }
    static void WriteSystemInfo(const std::string& content) { write_text(kSystemInfo, content); }
    static void WriteImageID(const std::string& content) { write_text(kImageID, content); }

    static void SetProduct(const std::string& name, const std::string& configuration,
                           const std::string& version) {
        WriteSystemInfo("PRODUCT_NAME=\"" + name + "\"\nPRODUCT_CONFIG=\"" + configuration +
                        "\"\nPRODUCT_VERSION=\"" + version + "\"\n");
    }

    // Image types 1 to 10, each by the file that can name it; any other: no identity.
    static void SetImageType(unsigned type) {
        constexpr std::array identifiers = {"DXST0005", "DXSQ0005", "DXQU0005",
                                            "DXST0020", "DXAR0005", "ZXX40012"};
        RemoveIdentity();
        if (type >= 1 && type <= identifiers.size()) {
            WriteImageID(std::string(identifiers.at(type - 1)) + "\n");
        } else if (type >= 7 && type <= 10) {
            SetProduct("Sylvex", "standard", std::to_string(type - 3) + ".1");
        }
    }

    static constexpr const char* kSystemInfo = "/etc/systeminfo";
    static constexpr const char* kImageID = "/etc/imageid";

private:
    std::unique_ptr<ProgramFolder> programs_;
};

// What standard output (standard error) got while `action` ran, also from started commands.
template <typename Action>
std::string captured_stdout(Action action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

template <typename Action>
std::string captured_stderr(Action action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}
