/// TCP listeners and the options of their connections.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "base/unique_fd.h"

namespace ZARO::RelayHub {

/// How long a listener rests after the process or the system ran out of descriptors or memory.
constexpr auto kAcceptPause = std::chrono::milliseconds(100);

/// Listens on an IP address (IPv4 or IPv6 text) and a port, 0 = any free one, without blocking.
/// False with the reason in `error`.
bool ListenTcp(const std::string& address, int port, UniqueFd& listener, std::string& error);

/// The port that a socket is bound to; 0 when unknown.
int PortOf(int fd);

/// Whether that address and port can be listened on at the moment. Throws system_error when this
/// can't be found out: no descriptor is left, or the address is not this machine's.
bool IsPortFree(const std::string& address, int port);

/// Whether accept() failed with `error` because the system is out of descriptors or memory. A retry
/// at once would only burn CPU time.
bool IsShortage(int error);

void SetNoDelay(int fd);

/// Makes the kernel probe a silent peer after `idle` seconds, then every `interval` seconds, and
/// end the connection when `count` probes get no answer.
void SetKeepAlive(int fd, int idle, int interval, int count);

/// Makes the kernel end the connection when the peer takes no data for that long.
void SetUserTimeOut(int fd, int milliseconds);

/// Address and port of the peer; "" and 0 when unknown.
std::string PeerOf(int fd, int& port);

/// A number for the peer's network, which usually belongs to a single subscriber: the IPv4 address,
/// or the first half of the IPv6 address. 0 when unknown.
std::uint64_t NetworkOf(int fd);

} // namespace ZARO::RelayHub
