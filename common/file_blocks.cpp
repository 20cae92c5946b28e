#include "common/file_blocks.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

// Makes room for the rest of the file at once, where its size is known.
void reserve_for(std::FILE* file, std::string& content) {
    struct stat status {};
    if (::fstat(::fileno(file), &status) == 0 && S_ISREG(status.st_mode)) {
        content.reserve(content.size() + static_cast<std::size_t>(status.st_size) + 1);
    }
}

void append_cut(const char* block, std::size_t size, std::string& content) {
    content.append(block, strnlen(block, size));
}

}  // namespace

void read_blocks(std::FILE* file, std::size_t block_size, std::string& content) {
    constexpr std::size_t kBlocksAtOnce = 64;
    reserve_for(file, content);
    std::vector<char> blocks(block_size * kBlocksAtOnce);
    while (const std::size_t got = std::fread(blocks.data(), 1, blocks.size(), file)) {
        if (std::memchr(blocks.data(), '\0', got) == nullptr) {
            content.append(blocks.data(), got);
            continue;
        }
        for (std::size_t at = 0; at < got; at += block_size) {
            append_cut(blocks.data() + at, std::min(block_size, got - at), content);
        }
    }
}
