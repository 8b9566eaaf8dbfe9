/// Simulated devices, many in one process, which another process drives:
///
///   fleet_devices SOCKET
///
/// It listens on the Unix socket SOCKET for one connection and ends with it. Each line there is a
/// command, answered by one line of JSON:
///
///   network ADDRESS SSHPORT           the devices' own addresses begin there; the relays' SSH port
///   control ADDRESS PORT              one more control server
///   make FIRST COUNT                  knows these devices from now on
///   start SPREAD                      all of them come within SPREAD ms, without tunnels
///   tunnels SPREAD                    all of them build their tunnels within SPREAD ms
///   leave COUNT                       the next COUNT devices leave without a word
///   come COUNT                        the COUNT devices that left first come back
///   drop COUNT                        the next COUNT devices lose their tunnels, each alone
///   mark                              attempts and losses are counted from now on
///   report                            {"registered":…, "polls":…, "tunnels":…, "whole":…, …}
///   back                              [MS, …]: when each device that had lost something was back
///   ports COUNT                       [["ADDRESS", PORT], …]: the tunnels of the first COUNT
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <functional>
#include <iostream>
#include <istream>
#include <map>
#include <sstream>
#include <string>

#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/streambuf.hpp>
#include <boost/asio/write.hpp>

#include "base/json.h"
#include "bench/fleet_device.h"

namespace {

using namespace ZARO::Fleet;
namespace asio = boost::asio;
using local = asio::local::stream_protocol;

/// The devices of this process, and what the driver may do with them.
class Devices {
public:
    /// Throws on a line that is no command.
    Json::Value Do(std::istringstream line) {
        std::string name;
        line >> name;
        return (this->*Commands().at(name))(line);
    }

    World& Loop() { return world_; }

private:
    using Command = Json::Value (Devices::*)(std::istringstream&);

    static const std::map<std::string, Command>& Commands() {
        static const std::map<std::string, Command> commands = {
            {"network", &Devices::UseNetwork}, {"control", &Devices::AddControl},
            {"make", &Devices::Make},          {"start", &Devices::Start},
            {"tunnels", &Devices::UseTunnels}, {"leave", &Devices::Leave},
            {"come", &Devices::Come},          {"drop", &Devices::Drop},
            {"mark", &Devices::Mark},          {"report", &Devices::Report},
            {"back", &Devices::Back},          {"ports", &Devices::Ports},
        };
        return commands;
    }

    static long Number(std::istringstream& line) {
        long number = 0;
        line >> number;
        return number;
    }
    static std::string Word(std::istringstream& line) {
        std::string word;
        line >> word;
        return word;
    }

    Json::Value UseNetwork(std::istringstream& line) {
        world_.network = asio::ip::make_address_v4(Word(line)).to_uint();
        world_.sshPort = static_cast<std::uint16_t>(Number(line));
        return true;
    }
    Json::Value AddControl(std::istringstream& line) {
        const auto address = asio::ip::make_address(Word(line));
        world_.controls.emplace_back(address, static_cast<std::uint16_t>(Number(line)));
        return true;
    }
    Json::Value Make(std::istringstream& line) {
        const auto first = static_cast<unsigned>(Number(line));
        const auto count = static_cast<unsigned>(Number(line));
        for (unsigned number = first; number < first + count; ++number) {
            devices_.emplace_back(world_, number);
        }
        return true;
    }
    Json::Value Start(std::istringstream& line) {
        const milliseconds spread(Number(line));
        for (FleetDevice& device : devices_) {
            device.Start(spread, false);
        }
        return true;
    }
    Json::Value UseTunnels(std::istringstream& line) {
        const milliseconds spread(Number(line));
        for (FleetDevice& device : devices_) {
            device.UseTunnel(spread);
        }
        return true;
    }
    Json::Value Leave(std::istringstream& line) {
        for (long count = Number(line); count > 0; --count) {
            FleetDevice& device = devices_[next_++ % devices_.size()];
            if (device.IsRunning()) {
                device.Stop();
                away_.push_back(&device);
            }
        }
        return true;
    }
    Json::Value Come(std::istringstream& line) {
        for (long count = Number(line); count > 0 && !away_.empty(); --count) {
            away_.front()->Start(milliseconds(0), true);
            away_.pop_front();
        }
        return true;
    }
    Json::Value Drop(std::istringstream& line) {
        for (long count = Number(line); count > 0; --count) {
            devices_[next_++ % devices_.size()].DropTunnel();
        }
        return true;
    }
    Json::Value Mark(std::istringstream& /*line*/) {
        world_.mark = Clock::now();
        for (FleetDevice& device : devices_) {
            device.Mark();
        }
        return true;
    }
    Json::Value Report(std::istringstream& line);
    Json::Value Back(std::istringstream& /*line*/) {
        Json::Value times(Json::arrayValue);
        for (const FleetDevice& device : devices_) {
            if (const auto back = device.BackAfter()) {
                times.append(static_cast<Json::Int64>(back->count()));
            }
        }
        return times;
    }
    Json::Value Ports(std::istringstream& line) {
        Json::Value ports(Json::arrayValue);
        for (auto left = static_cast<std::size_t>(Number(line)), at = std::size_t(0);
             left > 0 && at < devices_.size(); --left, ++at) {
            Json::Value port(Json::arrayValue);
            port.append(devices_[at].Tunnel().Address().host);
            port.append(devices_[at].Tunnel().Address().port);
            ports.append(port);
        }
        return ports;
    }

    World world_;
    std::deque<FleetDevice> devices_;
    std::deque<FleetDevice*> away_;
    std::size_t next_ = 0; ///< who leaves next
};

Json::Value Devices::Report(std::istringstream& /*line*/) {
    Json::Value sums(Json::objectValue);
    const auto add = [&sums](const char* name, unsigned number) {
        sums[name] = sums[name].asUInt() + number;
    };
    unsigned most = 0;
    for (const FleetDevice& device : devices_) {
        const FleetPoll& poll = device.Poll();
        const FleetTunnel& tunnel = device.Tunnel();
        most = std::max({most, poll.tries, tunnel.tries});
        add("running", device.IsRunning() ? 1 : 0);
        add("registered", poll.IsRegistered() ? 1 : 0);
        add("polls", poll.Stands() ? 1 : 0);
        add("tunnels", tunnel.IsUp() ? 1 : 0);
        add("whole", device.IsWhole() ? 1 : 0);
        add("lost", device.HasLost() ? 1 : 0);
        add("requests", poll.requests);
        add("poll_tries", poll.tries);
        add("poll_failures", poll.failures);
        add("tunnel_tries", tunnel.tries);
        add("tunnel_failures", tunnel.failures);
        add("refusals", poll.refusals + tunnel.refusals);
    }
    sums["most_tries"] = most;
    return sums;
}

/// Serves the driver's connection until it ends.
class Driver {
public:
    Driver(Devices& devices, const char* path) : devices_(devices), socket_(devices.Loop().loop) {
        local::acceptor(devices.Loop().loop, path).accept(socket_);
    }

    void ReadLine() {
        asio::async_read_until(socket_, input_, '\n',
                               [this](const boost::system::error_code& error, std::size_t) {
                                   if (error) {
                                       exit(0); // the driver has gone, and nobody needs the rest
                                   }
                                   Answer();
                                   ReadLine();
                               });
    }

private:
    void Answer() {
        std::string line;
        std::istream text(&input_);
        std::getline(text, line);
        const std::string answer = ZARO::json::OneLine(devices_.Do(std::istringstream(line)));
        asio::write(socket_, asio::buffer(answer)); // the driver waits for it
    }

    Devices& devices_;
    local::socket socket_;
    asio::streambuf input_;
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: fleet_devices SOCKET\n";
        return 2;
    }
    (void)signal(SIGPIPE, SIG_IGN); // libssh writes to connections that may be gone
    try {
        Devices devices;
        Driver driver(devices, argv[1]);
        driver.ReadLine();
        devices.Loop().loop.run();
    } catch (const std::exception& fault) {
        std::cerr << "fleet_devices: " << fault.what() << '\n';
        return 1;
    }
}
