/// What all simulated devices of one process share.
#pragma once

#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>

#include "app/common/clock.h"

namespace ZARO::Fleet {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using Relay::app::Clock;
using Relay::app::Time;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// For the loop's one thread.
struct World {
    World();

    /// The address that a device's connections come from. Fifty devices share one, as homes behind
    /// one carrier's address do.
    asio::ip::address AddressOf(unsigned device) const;
    /// Opens a socket that connects from this device's address.
    void Open(tcp::socket& socket, unsigned device) const;

    asio::io_context loop{1};
    asio::ssl::context tls{asio::ssl::context::tls_client};
    std::vector<tcp::endpoint> controls; ///< each request of a device goes to the next one
    unsigned network = 127U << 24U;      ///< the devices' addresses begin here
    std::uint16_t sshPort = 0;           ///< the same on every relay
    Time mark{};                         ///< attempts and losses are counted from here
};

} // namespace ZARO::Fleet
