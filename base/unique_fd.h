/// The one owner of a descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace ZARO {

/// Owns a descriptor, or none (-1), and closes it when it goes. Any thread, one at a time.
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    ~UniqueFd() { (void)Close(); } // for the result, call Close first
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        UniqueFd former(std::exchange(fd_, other.Release()));
        return *this;
    }
    int Get() const { return fd_; }
    bool IsOpen() const { return fd_ >= 0; }

    /// Gives the descriptor to the caller.
    int Release() { return std::exchange(fd_, -1); }

    /// Closes it now. False, with errno, when close() reports a failed write; true for none.
    bool Close() { return fd_ < 0 || close(Release()) == 0; }

private:
    int fd_;
};

} // namespace ZARO
