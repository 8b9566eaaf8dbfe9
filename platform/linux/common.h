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

#include "platform/paths.h"
#include "platform/unique_fd.h"

namespace ZARO::Platform {

namespace paths = ZARO::Relay::paths;
using ZARO::Relay::UniqueFd;

/// The largest file that is read or written, in bytes: far above any settings file, and a bound on
/// what a damaged or planted one can cost.
constexpr size_t kMaxFileSize = 1 << 20;

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

/// Reads a regular file from where its descriptor stands to its end; EFBIG above `limit` bytes.
int ReadAll(int fd, size_t limit, std::string& text);

/// Reads a whole regular file. Refuses anything else without blocking on it.
int ReadFile(const std::string& path, std::string& text);

/// Gives the names in a folder in byte order, without hidden ones.
int ListFolder(const std::string& path, std::vector<std::string>& names);

int WriteAll(int fd, std::string_view text);

/// Makes a rename, link or removal in `folder` survive a power cut, as far as the file system can.
/// Reports nothing: the change itself has been made.
void SyncFolder(const std::string& folder);

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
