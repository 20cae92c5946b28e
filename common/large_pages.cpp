#include "common/large_pages.h"

#include <sys/mman.h>

#include <memory>

void advise_large_pages(void* memory, std::size_t size) {
    void* begin = memory;
    std::size_t left = size;
    if (std::align(kLargePage, kLargePage, begin, left) != nullptr) {
        // Only advice: without it the memory works as well.
        static_cast<void>(::madvise(begin, left / kLargePage * kLargePage, MADV_HUGEPAGE));
    }
}
