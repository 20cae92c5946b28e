// Runs each seed of one fuzz target. A finding ends the program, so that it leaves no results; the
// last seed that it has named is the one.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::filesystem::path> seeds() {
    std::vector<std::filesystem::path> found;
    for (const auto& entry : std::filesystem::directory_iterator(FUZZ_SEEDS)) {
        found.push_back(entry.path());
    }
    std::sort(found.begin(), found.end());
    return found;
}

TEST(FuzzSeeds, RunWithoutAFinding) {
    const auto files = seeds();
    ASSERT_GE(files.size(), 2U);
    for (const auto& file : files) {
        std::cout << file.filename().string() << std::endl;
        std::ifstream stream(file, std::ios::binary);
        const std::string text{std::istreambuf_iterator<char>(stream), {}};
        ASSERT_TRUE(stream.good() || stream.eof());
        ASSERT_FALSE(text.empty());
        EXPECT_EQ(
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()),
            0);
    }
}

}  // namespace
