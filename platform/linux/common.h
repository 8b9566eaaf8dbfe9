/// What every topic of this platform shares: the thread's last error, descriptors, whole files and
/// the caller's text buffers. Functions here return 0 or an error number of <errno.h>; the C
/// functions turn that into their own result with Fail().
#pragma once

#include <errno.h>
#include <stddef.h>
#include <unistd.h>

#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Everything is built with hidden symbols; only the contract's functions leave the library.
#pragma GCC visibility push(default)
#include "zaro/platform.h"
#pragma GCC visibility pop

#include "base/paths.h"
#include "base/read_file.h"

namespace ZARO::Platform {

namespace paths = ZARO::paths; // for the C functions, which are in no namespace

/// Keeps `error` for TLIBCErrGet. Returns -1.
int Fail(int error) noexcept;

/// Runs the body of a C function, which gives its result; what it throws becomes a failure, and
/// errno is ENOMEM when memory ran out.
template <typename Body> int Guard(Body body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return Fail(ENOMEM);
    } catch (...) {
        return Fail(EIO);
    }
}

/// Reads a whole regular file. Refuses anything else without blocking on it. `text` is untouched on
/// failure.
int ReadWhole(const std::string& path, std::string& text);

/// Adds the names in a folder to `names`, without hidden ones, and sorts them in byte order.
int ListFolder(const std::string& path, std::vector<std::string>& names);

/// Puts `text` into a caller's buffer of `size` > 0 bytes, cut to fit and never within a UTF-8
/// character. Returns the length of the copy.
int CopyCut(std::string_view text, char* buf, int size);

/// Whether a text fits whole into a caller's buffer.
inline bool Fits(std::string_view text, int size) {
    return size > 0 && text.size() < static_cast<size_t>(size);
}

/// Copies a text that is useless or misleading when cut: ERANGE, with the buffer untouched, when it
/// does not fit.
int CopyWhole(std::string_view text, char* buf, int size);

/// Whether a settings value switches something on: "yes", in any case.
bool IsYes(std::string_view value);

} // namespace ZARO::Platform
