#include "common/file_blocks.h"

#include "common/file_handle.h"
#include "tests/unit/common/last_allocation.h"
#include "tests/unit/common/test_folder.h"

#include <gtest/gtest.h>

#include <stdio.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using namespace std::string_literals;

constexpr std::size_t kBlock = 1020;
constexpr std::size_t kBlocksAtOnce = 64;

// That many bytes without a NUL; blocks of any size differ from their neighbours.
std::string pattern(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t at = 0; at < size; ++at) {
        bytes[at] = static_cast<char>(1 + at % 251);
    }
    return bytes;
}

// What is left of the bytes, one block after the other.
std::string cut_blocks(const std::string& bytes, std::size_t block_size) {
    std::string left;
    for (std::size_t at = 0; at < bytes.size(); at += block_size) {
        const std::string block = bytes.substr(at, block_size);
        left += block.substr(0, block.find('\0'));
    }
    return left;
}

class FileBlocks : public testing::Test {
protected:
    std::string ReadBack(const std::string& bytes, std::size_t block_size) {
        const FileHandle file(std::fopen(folder_.Put("file", bytes).c_str(), "r"));
        std::string content;
        read_blocks(file.get(), block_size, ReadEnd::kShortRead, content);
        EXPECT_TRUE(std::feof(file.get()));
        return content;
    }

    TestFolder folder_;
};

TEST_F(FileBlocks, EverySizeAroundABlockAndAroundAllThatAreReadAtOnce) {
    for (const std::size_t block : {std::size_t{1}, std::size_t{2}, std::size_t{7}, kBlock}) {
        std::set<std::size_t> sizes = {0};
        for (const std::size_t blocks : {std::size_t{1}, std::size_t{2}, kBlocksAtOnce - 1,
                                         kBlocksAtOnce, kBlocksAtOnce + 1, 2 * kBlocksAtOnce}) {
            sizes.insert({blocks * block - 1, blocks * block, blocks * block + 1});
        }
        for (const std::size_t size : sizes) {
            EXPECT_EQ(ReadBack(pattern(size), block), pattern(size)) << size << " by " << block;
        }
    }
}

TEST_F(FileBlocks, OneNulAtEachPositionCutsItsBlockOnly) {
    constexpr std::size_t block = 3;
    std::string bytes = pattern(block * kBlocksAtOnce * 2 + 2);
    for (char& byte : bytes) {
        const char kept = byte;
        byte = '\0';
        ASSERT_EQ(ReadBack(bytes, block), cut_blocks(bytes, block)) << &byte - bytes.data();
        byte = kept;
    }
}

TEST_F(FileBlocks, NulsAtTheEdgesOfBlocksOfTheUsualSize) {
    constexpr std::size_t all = kBlocksAtOnce * kBlock;
    const std::string bytes = pattern(all + kBlock + 10);
    constexpr std::array<std::size_t, 9> edges = {0,          kBlock - 1,   kBlock,
                                                  kBlock + 1, all - kBlock, all - 1,
                                                  all,        all + kBlock, all + kBlock + 9};
    for (const std::size_t first : edges) {
        for (const std::size_t second : edges) {
            std::string cut = bytes;
            cut[first] = '\0';
            cut[second] = '\0';
            ASSERT_EQ(ReadBack(cut, kBlock), cut_blocks(cut, kBlock)) << first << ' ' << second;
        }
    }
}

TEST_F(FileBlocks, BlocksOfNulsLeaveNothing) {
    EXPECT_EQ(ReadBack(std::string(200, '\0'), 3), "");
    EXPECT_EQ(ReadBack(std::string(200, '\0') + "x", 200), "x");
}

TEST_F(FileBlocks, WhatStandsInTheContentStays) {
    const FileHandle file(std::fopen(folder_.Put("file", "ab\0cd"s).c_str(), "r"));
    std::string content = "before ";
    read_blocks(file.get(), 4, ReadEnd::kShortRead, content);
    EXPECT_EQ(content, "before abd");
}

TEST_F(FileBlocks, RoomForAllIsMadeAtOnceAndNoMore) {
    const std::string bytes = pattern(200'000);
    const FileHandle file(std::fopen(folder_.Put("file", bytes).c_str(), "r"));
    std::string content = pattern(100'000);
    read_blocks(file.get(), kBlock, ReadEnd::kShortRead, content);
    EXPECT_EQ(content, pattern(100'000) + bytes);
    EXPECT_GT(content.capacity(), 300'000U);  // for a line end, too
    EXPECT_LE(content.capacity(), 300'100U);
}

// A hole, as a disk leaves behind that lost power, takes no memory.
TEST_F(FileBlocks, AFileLargerThanMemoryIsReadWhereWhatIsKeptFits) {
    const std::string path = folder_.Put("file", "text");
    std::filesystem::resize_file(path, 1'000'000);
    const FileHandle file(std::fopen(path.c_str(), "r"));
    std::string content = "before ";
    most_allocation = 900'000;
    EXPECT_NO_THROW(read_blocks(file.get(), kBlock, ReadEnd::kShortRead, content));
    most_allocation = SIZE_MAX;
    EXPECT_EQ(content, "before text");
    EXPECT_TRUE(std::feof(file.get()));
}

TEST_F(FileBlocks, BlocksOfTheRestOfAFileCountFromWhereItStands) {
    const FileHandle file(std::fopen(folder_.Put("file", "xab\0cdefg"s).c_str(), "r"));
    ASSERT_EQ(std::fgetc(file.get()), 'x');
    std::string content;
    read_blocks(file.get(), 4, ReadEnd::kShortRead, content);
    EXPECT_EQ(content, "abdefg");
}

TEST_F(FileBlocks, AFolderLeavesAnErrorAndNothing) {
    const FileHandle folder(std::fopen(folder_.Name().c_str(), "r"));
    std::string content;
    read_blocks(folder.get(), kBlock, ReadEnd::kShortRead, content);
    EXPECT_EQ(content, "");
    EXPECT_TRUE(std::ferror(folder.get()));
}

// Gives its bytes in pieces of one size, as a slow pipe does.
struct SlowSource {
    std::string bytes;
    std::size_t piece;
    std::size_t at = 0;
};

ssize_t read_piece(void* cookie, char* to, std::size_t size) {
    auto& source = *static_cast<SlowSource*>(cookie);
    const std::size_t got = std::min({size, source.piece, source.bytes.size() - source.at});
    std::copy_n(source.bytes.data() + source.at, got, to);
    source.at += got;
    return static_cast<ssize_t>(got);
}

TEST(FileBlocksOfAPipe, PiecesDoNotMoveTheBlocks) {
    std::string bytes = pattern(kBlocksAtOnce * kBlock + 500);
    for (const std::size_t at : {std::size_t{5}, kBlock, 3 * kBlock - 1, kBlocksAtOnce * kBlock}) {
        bytes[at] = '\0';
    }
    for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, kBlock - 1, kBlock + 1}) {
        SlowSource source{bytes, piece};
        const FileHandle file(fopencookie(&source, "r", {read_piece, nullptr, nullptr, nullptr}));
        std::string content;
        read_blocks(file.get(), kBlock, ReadEnd::kShortRead, content);
        EXPECT_EQ(content, cut_blocks(bytes, kBlock)) << piece;
    }
}

TEST(FileBlocksOfAPipe, APipeThatAWriterFillsSlowly) {
    std::string bytes = pattern(30 * kBlock + 100);
    bytes[2 * kBlock + 1] = '\0';
    bytes[30 * kBlock + 3] = '\0';
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    std::thread writer([&bytes, to = ends[1]] {
        for (std::size_t at = 0; at < bytes.size(); at += 777) {
            const std::size_t size = std::min(std::size_t{777}, bytes.size() - at);
            EXPECT_EQ(::write(to, bytes.data() + at, size), static_cast<ssize_t>(size));
            std::this_thread::yield();
        }
        ::close(to);
    });
    const FileHandle file(::fdopen(ends[0], "r"));
    std::string content;
    read_blocks(file.get(), kBlock, ReadEnd::kShortRead, content);
    writer.join();
    EXPECT_EQ(content, cut_blocks(bytes, kBlock));
}

// Fails once, between two pieces.
struct FailingSource {
    int calls = 0;
};

ssize_t fail_once(void* cookie, char* to, std::size_t size) {
    const int call = static_cast<FailingSource*>(cookie)->calls++;
    if (call == 1) {
        errno = EIO;
        return -1;
    }
    if (call > 2) {
        return 0;
    }
    const std::size_t got = call == 0 ? 1 : std::min(size, std::size_t{5});
    std::fill_n(to, got, call == 0 ? 'a' : 'b');
    return static_cast<ssize_t>(got);
}

std::string read_past_an_error(ReadEnd end) {
    FailingSource source;
    const FileHandle file(fopencookie(&source, "r", {fail_once, nullptr, nullptr, nullptr}));
    std::string content;
    read_blocks(file.get(), 3, end, content);
    EXPECT_TRUE(std::ferror(file.get()));
    return content;
}

TEST(FileBlocksOfAPipe, AShortReadEndsAtAnError) {
    EXPECT_EQ(read_past_an_error(ReadEnd::kShortRead), "a");
}

TEST(FileBlocksOfAPipe, UntilNothingIsReadGoesOnBehindAnError) {
    EXPECT_EQ(read_past_an_error(ReadEnd::kNothingRead), "abbbbb");
}

}  // namespace
