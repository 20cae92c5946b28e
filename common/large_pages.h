#pragma once

#include <cstddef>

// Advises the kernel to make large memory of its large pages: a big document then costs one page
// fault where it would cost hundreds.

// Size and alignment of what is made of large pages, in bytes.
inline constexpr std::size_t kLargePage = std::size_t{2} << 20U;

// Advises on the whole large pages within these `size` bytes. Nothing happens where there is none
// or the kernel has no such pages.
void advise_large_pages(void* memory, std::size_t size);
