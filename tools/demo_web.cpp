// A small web service of the device, for the demonstration: prints its port and serves one page.
#include <ctime>
#include <iostream>
#include <string>

#include <httplib.h>

int main() {
    httplib::Server server;
    server.Get("/", [](const httplib::Request&, httplib::Response& reply) {
        const std::time_t now = std::time(nullptr);
        reply.set_content("Hello from the device behind the router.\nIts clock says " +
                              std::string(std::ctime(&now)),
                          "text/plain");
    });
    const int port = server.bind_to_any_port("127.0.0.1");
    if (port < 0) {
        std::cerr << "demo-web: no port to listen on" << std::endl;
        return 1;
    }
    std::cout << port << std::endl;
    return server.listen_after_bind() ? 0 : 1;
}
