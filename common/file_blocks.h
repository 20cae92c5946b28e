#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

// A read that gives less than was asked for met the end of the file or an error; behind an error
// that went by there may be more.
enum class ReadEnd { kShortRead, kNothingRead };

// Appends the rest of the file to `content`, each block of `block_size` bytes up to its first NUL:
// a NUL cuts the block that it stands in and nothing else. The stream then knows of an error.
void read_blocks(std::FILE* file, std::size_t block_size, ReadEnd end, std::string& content);
