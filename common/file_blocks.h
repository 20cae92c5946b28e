#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

// Appends the rest of the file to `content`, each block of `block_size` bytes up to its first NUL:
// a NUL cuts the block that it stands in and nothing else. Ends at the end of the file or at an
// error, which the stream then knows.
void read_blocks(std::FILE* file, std::size_t block_size, std::string& content);
