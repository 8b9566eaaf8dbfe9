#include "base/unix_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace ZARO {

namespace {

constexpr int kBacklog = 16;

/// The address of a name in a folder. An address holds about 100 bytes, so the way to a longer one
/// leads through this process's own descriptor of the folder.
class Address {
public:
    Address(const std::string& folder, const char* name) {
        std::string path = folder + "/" + name;
        if (path.size() >= sizeof address_.sun_path) {
            folder_ = UniqueFd(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
            if (!folder_.IsOpen()) {
                return;
            }
            path = "/proc/self/fd/" + std::to_string(folder_.Get()) + "/" + name;
        }
        errno = ENAMETOOLONG;
        good_ = path.size() < sizeof address_.sun_path;
        if (good_) {
            memcpy(address_.sun_path, path.c_str(), path.size() + 1);
        }
    }
    /// False with errno.
    bool IsGood() const { return good_; }
    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&address_); }
    static socklen_t Size() { return sizeof(sockaddr_un); }

private:
    sockaddr_un address_ = {AF_UNIX, {}};
    UniqueFd folder_; ///< if the address needs it
    bool good_ = false;
};

void SetPatience(int fd, int option, std::chrono::seconds patience) {
    const timeval limit{static_cast<time_t>(patience.count()), 0};
    (void)setsockopt(fd, SOL_SOCKET, option, &limit, sizeof limit); // then it waits on
}

} // namespace

UniqueFd ListenUnix(const std::string& folder, const char* name) {
    const Address address(folder, name);
    constexpr int kType = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;
    UniqueFd fd(address.IsGood() ? socket(AF_UNIX, kType, 0) : -1);
    // The new file gets the mode that the socket has before.
    if (!fd.IsOpen() || fchmod(fd.Get(), 0600) != 0 ||
        bind(fd.Get(), address.Get(), Address::Size()) != 0 || listen(fd.Get(), kBacklog) != 0) {
        return UniqueFd();
    }
    return fd;
}

UniqueFd ConnectUnix(const std::string& folder, const char* name, std::chrono::seconds patience) {
    const Address address(folder, name);
    UniqueFd fd(address.IsGood() ? socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0) : -1);
    if (!fd.IsOpen()) {
        return UniqueFd();
    }
    SetPatience(fd.Get(), SO_SNDTIMEO, patience);
    SetPatience(fd.Get(), SO_RCVTIMEO, patience);
    if (connect(fd.Get(), address.Get(), Address::Size()) != 0) {
        return UniqueFd();
    }
    return fd;
}

} // namespace ZARO
