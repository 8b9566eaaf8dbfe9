/// Memory that runs out when a test says so. Include it in one source of a program: it replaces
/// malloc, which operator new and the libraries use.
#pragma once

#include <cerrno>
#include <cstddef>

/// How many allocations succeed before one fails; negative: all succeed. With a sanitizer, which
/// has an allocator of its own, all succeed too.
inline long gAllocationsUntilOneFails = -1;

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#pragma GCC visibility push(default)
extern "C" void* __libc_malloc(std::size_t size) noexcept;

extern "C" void* malloc(std::size_t size) noexcept {
    if (gAllocationsUntilOneFails < 0 || gAllocationsUntilOneFails-- > 0) {
        return __libc_malloc(size);
    }
    errno = ENOMEM;
    return nullptr;
}
#pragma GCC visibility pop
#endif

/// Runs `code` once for each of its allocations, which fails that time, and then without a failure.
/// Calls `check` after each run.
template <class Code, class Check> void WithEachAllocationFailing(Code code, Check check) {
    bool failed = true;
    for (long n = 0; failed; ++n) {
        gAllocationsUntilOneFails = n;
        code();
        failed = gAllocationsUntilOneFails < 0;
        gAllocationsUntilOneFails = -1;
        check();
    }
}
