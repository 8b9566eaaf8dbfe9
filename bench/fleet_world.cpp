#include "bench/fleet_world.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <openssl/ssl.h>

namespace ZARO::Fleet {

namespace {

constexpr unsigned kDevicesPerAddress = 50;
constexpr unsigned kFirstAddress = 256; // those below are the hub's

} // namespace

World::World() {
    tls.set_verify_mode(asio::ssl::verify_none); // the hub's certificate is self-signed
    (void)SSL_CTX_set_mode(tls.native_handle(), SSL_MODE_RELEASE_BUFFERS);
}

asio::ip::address World::AddressOf(unsigned device) const {
    return asio::ip::address_v4(network + kFirstAddress + device / kDevicesPerAddress);
}

void World::Open(tcp::socket& socket, unsigned device) const {
    boost::system::error_code ignored; // connecting fails as well then
    (void)socket.open(tcp::v4(), ignored);
    // The port is chosen when the connection is made, so it need not be free for every peer.
    const int on = 1;
    (void)setsockopt(socket.native_handle(), IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
    (void)socket.bind({AddressOf(device), 0}, ignored);
    (void)socket.set_option(tcp::no_delay(true), ignored);
}

} // namespace ZARO::Fleet
