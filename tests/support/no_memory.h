/// Memory that runs out when a test says so. For one source of a program: it replaces the program's
/// operators new and delete, which must not be inlined: the compiler would see free() meet new.
#pragma once

#include <cstdlib>
#include <new>

/// How many allocations this process may still make; negative: any number.
inline long gAllocationsLeft = -1;

[[gnu::noinline]] void* operator new(std::size_t size) {
    if (gAllocationsLeft == 0) {
        throw std::bad_alloc();
    }
    gAllocationsLeft -= gAllocationsLeft > 0;
    return std::malloc(size);
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
