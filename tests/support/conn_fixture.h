#pragma once

#include "common/run_options.h"
#include "common/tinyxml.h"
#include "platform/conn_type_map.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/resource.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

inline std::string bytes_of(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// Writes a file, with the folders above it.
inline void put_file(const std::filesystem::path& path, const std::string& content) {
    if (path.has_parent_path()) {
        std::filesystem::create_directories(path.parent_path());
    }
    std::ofstream stream(path, std::ios::binary);
    stream << content;
    if (!stream.flush()) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

// A folder of one test's own below the current one; it goes with everything in it.
class OwnFolder {
public:
    OwnFolder() : path_((std::filesystem::current_path() / "corvik_test.XXXXXX").string()) {
        if (mkdtemp(path_.data()) == nullptr) {
            throw std::runtime_error("no test folder can be made below the current folder");
        }
    }
    ~OwnFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    OwnFolder(const OwnFolder&) = delete;
    OwnFolder& operator=(const OwnFolder&) = delete;

    std::filesystem::path Path() const { return path_; }
    std::filesystem::path Path(const std::string& name) const { return Path() / name; }

private:
    std::string path_;
};

// Gives an environment variable another value for as long as it lives.
class EnvironmentChange {
public:
    EnvironmentChange(const char* name, const std::string& value) : name_(name) {
        const char* before = std::getenv(name);
        was_set_ = before != nullptr;
        before_ = was_set_ ? before : "";
        setenv(name, value.c_str(), 1);
    }
    ~EnvironmentChange() {
        if (was_set_) {
            setenv(name_, before_.c_str(), 1);
        } else {
            unsetenv(name_);
        }
    }
    EnvironmentChange(const EnvironmentChange&) = delete;
    EnvironmentChange& operator=(const EnvironmentChange&) = delete;

private:
    const char* name_;
    bool was_set_ = false;
    std::string before_;
};

// Lowers a resource of this process and its children for as long as it lives.
class LoweredLimit {
public:
    LoweredLimit(int resource, rlim_t limit) : resource_(resource) {
        getrlimit(Kind(), &before_);
        rlimit lowered = before_;
        lowered.rlim_cur = limit;
        if (setrlimit(Kind(), &lowered) != 0) {
            throw std::runtime_error("the limit cannot be lowered");
        }
    }
    ~LoweredLimit() { setrlimit(Kind(), &before_); }
    LoweredLimit(const LoweredLimit&) = delete;
    LoweredLimit& operator=(const LoweredLimit&) = delete;

private:
    __rlimit_resource_t Kind() const { return static_cast<__rlimit_resource_t>(resource_); }

    int resource_;
    rlimit before_{};
};

// A script in the registry client's place, first on PATH, and one in the place of rm, which notes
// its call and then removes. Until told otherwise, `contains` ends with 1 and everything else with
// 0, nothing is printed, and an export writes nothing.
class FakeClient {
public:
    using Call = std::vector<std::string>;

    FakeClient() : path_("PATH", folder_.Path().string() + ":" + std::getenv("PATH")) {
        for (const char* name : {"regsh", "rm"}) {
            put_file(folder_.Path(name), kScript);
            std::filesystem::permissions(folder_.Path(name), std::filesystem::perms::owner_all);
        }
        Status("contains", 1);
    }

    void Print(const std::string& verb, const std::string& output) {
        put_file(folder_.Path(verb + ".out"), output);
    }
    void Status(const std::string& verb, int status) {
        put_file(folder_.Path(verb + ".status"), std::to_string(status));
    }
    // What an export writes into its file.
    void Export(const std::string& document) { put_file(folder_.Path("document"), document); }
    void ExportNothing() { std::filesystem::remove(folder_.Path("document")); }
    void TakeAway() { std::filesystem::remove(folder_.Path("regsh")); }

    // The calls of both programs so far, each with the program's name first.
    std::vector<Call> Calls() const {
        const std::string text = bytes_of(folder_.Path("calls"));
        std::vector<std::string> words;
        for (std::size_t start = 0; start < text.size();) {
            const std::size_t end = text.find('\0', start);
            words.push_back(text.substr(start, end - start));
            start = end + 1;
        }
        std::vector<Call> calls;
        for (auto at = words.begin(); at != words.end();) {
            const auto last = at + 1 + std::stol(*at);
            calls.emplace_back(at + 1, last);
            at = last;
        }
        return calls;
    }
    void Forget() { std::filesystem::remove(folder_.Path("calls")); }

private:
    static constexpr const char* kScript = R"sh(#!/bin/sh
here=${0%/*}
name=${0##*/}
printf '%s\0' "$(($# + 1))" "$name" "$@" >>"$here/calls"
if [ "$name" = rm ]; then
    command -p rm "$@"
    exit
fi
if [ "$1" = export ] && [ -f "$here/document" ]; then
    cat "$here/document" >"$3"
fi
if [ -f "$here/$1.out" ]; then
    cat "$here/$1.out"
fi
if [ -f "$here/$1.status" ]; then
    exit "$(cat "$here/$1.status")"
fi
)sh";

    OwnFolder folder_;
    EnvironmentChange path_;
};

// What standard error got while `action` ran, also from the commands that it started.
template <typename Action>
std::string stderr_of(Action action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

// A simulated device with a fake registry client. Each test starts with image type 9 (standard), no
// session files, nothing asked yet, and a fresh RunOptions.
class ConnTest : public testing::Test {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        if (std::getenv("CORVIK_DEVICE") == nullptr) {
            FAIL() << "This test writes below /etc and /tmp: run it on a simulated device "
                      "(device -- PROGRAM), which sets CORVIK_DEVICE.";
        }
        run_options = RunOptions{};
        client_ = std::make_unique<FakeClient>();
        std::filesystem::remove_all("/etc/tavrin/connections");
        SetImageType(9);
        // The table of type names is made once in a process, whichever test comes first.
        if (MakesTable()) {
            to_registry_type("");
            Client().Forget();
        }
    }

    virtual bool MakesTable() const { return true; }

    void TearDown() override {
        client_.reset();
        run_options = RunOptions{};
        for (const std::string& file : made_) {
            std::filesystem::remove(file);
        }
    }

    FakeClient& Client() { return *client_; }

    static void SetSystemInfo(const std::string& configuration, const std::string& version) {
        std::filesystem::remove("/etc/imageid");
        put_file("/etc/systeminfo", "PRODUCT_NAME=\"Sylvex\"\nPRODUCT_CONFIG=\"" + configuration +
                                        "\"\nPRODUCT_VERSION=\"" + version + "\"\n");
    }
    static void SetImageID(const std::string& text) {
        std::filesystem::remove("/etc/systeminfo");
        put_file("/etc/imageid", text + "\n");
    }
    static void SetImageType(unsigned type) {
        constexpr std::array identifiers = {"DXST0005", "DXSQ0005", "DXQU0005",
                                            "DXST0020", "DXAR0005", "ZXX40012"};
        if (type <= identifiers.size()) {
            SetImageID(identifiers.at(type - 1));
        } else {
            SetSystemInfo("standard", std::to_string(type - 3) + ".1");
        }
    }

    // Session files are named relative to their folder.
    static void PutSession(const std::string& name, const std::string& content) {
        put_file("/etc/tavrin/connections/" + name, content);
    }

    // The path of a type's temporary export; the file goes after the test.
    std::string ExportFile(const std::string& type) {
        made_.push_back("/tmp/" + type + ".xml");
        return made_.back();
    }

private:
    std::unique_ptr<FakeClient> client_;
    std::vector<std::string> made_;
};

// A registry export in one line, in pieces.

inline std::string key_of(const std::string& name, const std::string& value) {
    return "<NodeKey name=\"" + name + "\"><NodeParam>" + value + "</NodeParam></NodeKey>";
}

inline std::string dir_of(const std::string& name, const std::string& content) {
    return "<NodeDir name=\"" + name + "\">" + content + "</NodeDir>";
}

// The whole document around what stands in the type directory.
inline std::string export_around(const std::string& type_content) {
    return "<Profile><ProfileRegistry><NodeDir name=\"type\">" + type_content +
           "</NodeDir></ProfileRegistry></Profile>";
}

inline std::string export_of(const std::string& connections) {
    return export_around(dir_of("connections", connections));
}

// The line of General in a printed connections file.
inline std::string general_of(const std::string& document) {
    NTiXmlDoc parsed(document, false);
    parsed.Parse(nullptr);
    NTiXmlElement general;
    general.Name() = "General";
    general.Text() = ToString(*parsed.RootElement());
    return "  " + ToString(general);
}
