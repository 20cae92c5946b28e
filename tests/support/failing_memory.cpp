// The calls of the plan that ask for memory.

#include "failing_plan.h"

#include <cstdlib>
#include <new>

namespace {

// True when memory that is asked for from there is to be refused.
bool is_refused(const void* caller) {
    return has_begun() && is_program(caller) && plan().strikes(kNew);
}

void* allocate(std::size_t size) {
    void* memory = plan().strikes(kNew) ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace

extern "C" {

// What the two below hide: the address sanitizer's own, where the program has it, so that it knows
// all memory and tells what is lost of it; otherwise the C library's.
[[gnu::weak]] void* checked_malloc(std::size_t size) asm("__interceptor_malloc");
[[gnu::weak]] void* checked_realloc(void* memory, std::size_t size) asm("__interceptor_realloc");
void* plain_malloc(std::size_t size) asm("__libc_malloc");
void* plain_realloc(void* memory, std::size_t size) asm("__libc_realloc");

void* malloc(std::size_t size) noexcept {
    if (is_refused(__builtin_return_address(0))) {
        return nullptr;
    }
    return checked_malloc != nullptr ? checked_malloc(size) : plain_malloc(size);
}

void* realloc(void* memory, std::size_t size) noexcept {
    if (is_refused(__builtin_return_address(0))) {
        return nullptr;
    }
    return checked_realloc != nullptr ? checked_realloc(memory, size) : plain_realloc(memory, size);
}

}  // extern "C"

void* operator new(std::size_t size) {
    return allocate(size);
}

void* operator new[](std::size_t size) {
    return allocate(size);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete[](void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
