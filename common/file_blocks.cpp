#include "common/file_blocks.h"

#include <sys/stat.h>

#include <exception>
#include <string_view>
#include <vector>

namespace {

// Makes room for the rest of the file at once, where its size is known. Where there is no such room
// the file may still fit: NULs, as in a hole, are not kept.
void reserve_for(std::FILE* file, std::string& content) {
    struct stat status {};
    if (::fstat(::fileno(file), &status) != 0 || !S_ISREG(status.st_mode)) {
        return;
    }
    try {
        content.reserve(content.size() + static_cast<std::size_t>(status.st_size) + 1);
    } catch (const std::exception&) {
        return;
    }
}

void append_blocks(std::string_view blocks, std::size_t block_size, std::string& content) {
    if (blocks.find('\0') == std::string_view::npos) {
        content += blocks;
        return;
    }
    for (std::size_t at = 0; at < blocks.size(); at += block_size) {
        const std::string_view block = blocks.substr(at, block_size);
        content += block.substr(0, block.find('\0'));
    }
}

}  // namespace

void read_blocks(std::FILE* file, std::size_t block_size, ReadEnd end, std::string& content) {
    constexpr std::size_t kBlocksAtOnce = 64;
    reserve_for(file, content);
    std::vector<char> blocks(block_size * kBlocksAtOnce);
    const std::size_t least = end == ReadEnd::kShortRead ? blocks.size() : 1;
    std::size_t got = least;
    while (got >= least) {
        got = std::fread(blocks.data(), 1, blocks.size(), file);
        append_blocks({blocks.data(), got}, block_size, content);
    }
}
