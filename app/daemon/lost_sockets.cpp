#include "app/daemon/lost_sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <system_error>

#include "base/folder.h"
#include "base/unique_fd.h"

namespace ZARO::Relay::app {

namespace {

constexpr unsigned kEstablished = 1;

/// Inode numbers of a process's sockets.
std::set<unsigned long> SocketsOf(pid_t pid) {
    std::set<unsigned long> inodes;
    const std::string folder = "/proc/" + std::to_string(pid) + "/fd";
    (void)ForEachEntry(folder, [&](const std::filesystem::path& descriptor) {
        std::error_code closed; // since it was listed
        const std::string target = std::filesystem::read_symlink(descriptor, closed);
        unsigned long inode = 0;
        if (sscanf(target.c_str(), "socket:[%lu]", &inode) == 1) {
            inodes.insert(inode);
        }
    });
    return inodes;
}

/// Whether an address, in the form of the kernel's tables, belongs to this machine; true as well
/// when that can't be found out. Only the kernel knows: an interface may have any number of them.
bool IsOwnAddress(const std::string& hex) {
    constexpr std::size_t kWord = 8; // digits, the word in the machine's byte order
    uint32_t words[4] = {};
    const std::size_t count = hex.size() / kWord;
    for (std::size_t i = 0; i < count && i < std::size(words); ++i) {
        words[i] =
            static_cast<uint32_t>(strtoul(hex.substr(i * kWord, kWord).c_str(), nullptr, 16));
    }
    sockaddr_in v4 = {};
    v4.sin_family = AF_INET;
    v4.sin_addr.s_addr = words[0];
    sockaddr_in6 v6 = {};
    v6.sin6_family = AF_INET6;
    memcpy(&v6.sin6_addr, words, sizeof words);
    const bool isV4 = count == 1;
    const auto* address =
        isV4 ? reinterpret_cast<const sockaddr*>(&v4) : reinterpret_cast<const sockaddr*>(&v6);
    const socklen_t length = isV4 ? sizeof v4 : sizeof v6;
    const UniqueFd fd(socket(address->sa_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return !fd.IsOpen() || bind(fd.Get(), address, length) == 0 || errno != EADDRNOTAVAIL;
}

} // namespace

LostSockets::LostSockets() {
    for (const char* name : {"/proc/self/net/tcp", "/proc/self/net/tcp6"}) {
        std::ifstream table(name);
        std::string line;
        while (std::getline(table, line)) {
            char local[33] = "";
            unsigned state = 0;
            unsigned long inode = 0;
            // sl local:port remote:port state queues timer retransmits uid timeout inode
            if (sscanf(line.c_str(),
                       " %*d: %32[0-9A-F]:%*x %*32[0-9A-F]:%*x %2x %*s %*s %*s %*s %*s %lu", local,
                       &state, &inode) == 3 &&
                state == kEstablished && !IsOwnAddress(local)) {
                inodes_.insert(inode);
            }
        }
    }
}

bool LostSockets::Has(pid_t pid) const {
    if (inodes_.empty()) {
        return false;
    }
    const std::set<unsigned long> own = SocketsOf(pid);
    return std::any_of(own.begin(), own.end(),
                       [this](unsigned long inode) { return inodes_.count(inode) != 0; });
}

} // namespace ZARO::Relay::app
