#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

// A folder of one test's own below the current one; it goes with everything in it.
class TestFolder {
public:
    TestFolder() {
        if (mkdtemp(name_.data()) == nullptr) {
            throw std::runtime_error("no test folder can be made below the current folder");
        }
    }
    ~TestFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(name_, ignored);
    }
    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;

    const std::string& Name() const { return name_; }
    std::string Path(const std::string& file) const { return name_ + "/" + file; }

    // Writes a file of that content and returns its path.
    std::string Put(const std::string& file, const std::string& content) const {
        std::ofstream stream(Path(file), std::ios::binary);
        stream << content;
        if (!stream.flush()) {
            throw std::runtime_error("cannot write " + Path(file));
        }
        return Path(file);
    }

private:
    std::string name_ = "unit_common.XXXXXX";
};

inline std::string file_bytes(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}
