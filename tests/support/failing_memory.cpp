// The calls of the plan that ask for memory.

#include "failing_plan.h"

#include <link.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

// Where the code of the program itself stands.
struct ProgramCode {
    std::uintptr_t begin = UINTPTR_MAX;
    std::uintptr_t end = 0;

    ProgramCode() {
        // The program comes first.
        dl_iterate_phdr(
            [](dl_phdr_info* object, std::size_t, void* code) {
                static_cast<ProgramCode*>(code)->take(*object);
                return 1;
            },
            this);
    }

    void take(const dl_phdr_info& object) {
        for (int at = 0; at < object.dlpi_phnum; ++at) {
            const auto& part = object.dlpi_phdr[at];
            if (part.p_type == PT_LOAD) {
                const std::uintptr_t start = object.dlpi_addr + part.p_vaddr;
                begin = std::min(begin, start);
                end = std::max(end, start + part.p_memsz);
            }
        }
    }
};

// True when memory that is asked for from there is to be refused.
bool is_refused(const void* caller) {
    if (!has_begun()) {
        return false;
    }
    static const ProgramCode program;
    const auto address = reinterpret_cast<std::uintptr_t>(caller);
    return address >= program.begin && address < program.end && plan().strikes(kNew);
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
