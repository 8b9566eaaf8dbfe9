#include "app/ctl/check.h"

#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <iostream>
#include <vector>

#include <zarorelayd/config.h>
#include <zarorelayd/daemon.h>
#include <zarorelayd/tunnel.h>
#include <zarorelayd/zarorelayd.h>

#include "app/common/checks.h"
#include "app/common/local_service.h"
#include "app/ctl/chain.h"
#include "app/ctl/device.h"
#include "app/ctl/probe.h"
#include "app/ctl/report.h"
#include "app/ctl/status.h"
#include "base/json.h"
#include "base/names.h"
#include "base/paths.h"
#include "base/terminal.h"

namespace ZARO::Relay::ctl {

namespace {

using app::milliseconds;

constexpr milliseconds kServerPatience{4000}; // for all of them together
constexpr std::size_t kMostRelays = 64;
constexpr int kFirstYear = 2024; // no device is older than this program
constexpr int kLastYear = 2099;

// --- the device itself

void CheckIdentity(Chain& chain, const Device& device) {
    const char* name = "hardware address";
    const std::string mac = AuthConf::RelaydGetMacAddressByIf("eth0");
    const std::string id = json::TextOf(device.config.document, "serverID");
    if (mac.empty()) {
        chain.Broken(name, "the device has none",
                     "name the network interface in " + paths::InfoFile() + " as nic=\"...\"");
    } else if (TLIBRelaydVerifyServerId(id.c_str()) != 1) {
        chain.Broken(name, "server id " + id + " belongs to another device",
                     "take \"serverID\" out of " + paths::ConfigFile() +
                         ", then: zarorelayctl restart");
    } else {
        chain.Good(name, mac + ", " + (id.empty() ? "no server id yet" : "server id " + id));
    }
}

void CheckConfiguration(Chain& chain, const Device& device) {
    const char* name = "configuration";
    if (!device.config.faults.empty()) {
        chain.Broken(name, device.config.faults.front(),
                     "correct the file, then: zarorelayctl reload");
    } else {
        const bool there = device.config.document.isObject();
        chain.Good(name, there ? paths::ConfigFile() : "no file, the defaults hold");
    }
    if (device.config.conf.GetEnableConf()) {
        chain.Good("switch", "on");
    } else {
        chain.Broken("switch", "the relay service is switched off", "zarorelayctl enable");
    }
}

void CheckCredentials(Chain& chain) {
    if (AuthConf(true).IsValid()) {
        chain.Good("credentials", "there");
    } else {
        chain.Broken("credentials", "serial, token or hardware address is missing",
                     RootOr("see whether " + paths::DeviceKeyFile() + " can be read"));
    }
}

void CheckClock(Chain& chain) {
    const std::time_t now = time(nullptr);
    std::tm fields{};
    const int year = gmtime_r(&now, &fields) != nullptr ? fields.tm_year + 1900 : 0;
    if (year >= kFirstYear && year <= kLastYear) {
        chain.Good("clock", DateAndTime(now));
    } else {
        chain.Broken("clock", DateAndTime(now) + " can't be true",
                     "set the clock, or switch NTP on");
    }
}

bool IsProgram(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
           access(path.c_str(), X_OK) == 0;
}

void CheckSsh(Chain& chain) {
    const std::string own = paths::SshProgram();
    if (!IsProgram(own)) {
        chain.Broken("ssh client", own + " is missing or not executable",
                     "install zarorelayd again");
    } else if (!IsProgram(paths::kStockSsh)) {
        chain.Broken("ssh client", std::string(paths::kStockSsh) + " is missing or not executable",
                     "install the package openssh-client");
    } else {
        chain.Good("ssh client", own);
    }
}

void CheckServices(Chain& chain, const Device& device) {
    if (device.config.conf.services.empty()) {
        chain.NotChecked("services", device.config.unusable
                                         ? "the configuration is broken"
                                         : "none is published (zarorelayctl service add)");
    }
    for (const ServiceConf& service : device.config.conf.services) {
        const std::string name = "service " + service.id;
        const std::string port = "port " + std::to_string(LocalPort(service));
        if (app::ProbeLocalPort(LocalPort(service)) == app::Reachable::Yes) {
            chain.Good(name, port);
        } else {
            chain.Broken(name, port + " does not answer on this device", "start that service");
        }
    }
}

// --- servers

/// Adds one server's links. Each needs the one before.
void ReportServer(Chain& chain, const std::string& server, const ServerProbe& probe) {
    const bool named = probe.reached >= Stage::Name;
    const bool connected = probe.reached >= Stage::Connected;
    if (named) {
        chain.Good(server + " name", probe.address.empty() ? probe.url : probe.address);
    } else {
        chain.Broken(server + " name", probe.fault,
                     "see whether the device has a gateway and a name server, and the name in the "
                     "configuration is right");
    }
    if (connected) {
        chain.Good(server, probe.url);
    } else if (named) {
        chain.Broken(server, probe.url + ": " + probe.fault,
                     "let connections to it out through router and firewall, or correct host and "
                     "port in the configuration");
    } else {
        chain.NotChecked(server, "its name was not found");
    }
    if (probe.url.compare(0, 8, "https://") != 0) {
        return;
    }
    if (probe.reached == Stage::Secured) {
        chain.Good(server + " TLS", "secured");
    } else if (connected) {
        chain.Broken(server + " TLS", probe.fault,
                     "see whether that port speaks TLS and its certificate names the host");
    } else {
        chain.NotChecked(server + " TLS", "no connection");
    }
}

void CheckServers(Chain& chain, const Device& device) {
    struct Server {
        const char* name;
        std::string url;
        const char* unless; ///< why there is no URL
    };
    const auto urlOf = [&](bool known, const std::string& url) {
        return !device.config.unusable && known ? url : "";
    };
    const AliasConf& alias = device.config.conf.alias;
    const Server servers[] = {
        {"control server", urlOf(true, device.config.conf.control.GetUrl(nullptr)), ""},
        {"wait-command server", urlOf(true, device.waitServer.GetUrl(nullptr)),
         "the control server names it"},
        {"alias server", urlOf(alias.IsAliasEnabled(), alias.GetUrl()), "there is no alias"}};
    std::vector<ServerProbe> probes;
    for (const Server& server : servers) {
        probes.emplace_back().url = server.url;
    }
    RunProbes(probes, kServerPatience);
    for (std::size_t i = 0; i < probes.size(); ++i) {
        if (!probes[i].url.empty()) {
            ReportServer(chain, servers[i].name, probes[i]);
        } else {
            chain.NotChecked(servers[i].name, device.config.unusable ? "the configuration is broken"
                                                                     : servers[i].unless);
        }
    }
}

// --- the daemon and its relays

/// Gives whether it is connected.
bool CheckDaemon(Chain& chain, const Device& device) {
    const Json::Value& document = device.status.document;
    const std::string state = document["state"].asString();
    if (device.status.code == kNotRunning) {
        chain.Broken("daemon", "not running", "zarorelayctl start");
    } else if (device.status.code == kNoAnswer) {
        chain.Broken("daemon", "belongs to another user", "run this as root");
    } else if (device.status.code != kSuccess) {
        chain.Broken("daemon", paths::StatusFile() + " is unusable", "zarorelayctl restart");
    } else if (IsConnected(state)) {
        chain.Good("daemon", "connected");
        return true;
    } else if (state == "stoped") {
        chain.Broken("daemon", "switched off", "zarorelayctl enable");
    } else if (state == "error") {
        const std::string error = document["error"].asString();
        chain.Broken("daemon", ErrorWords(error),
                     error == "err_auth" ? AdmissionRemedy()
                                         : "zarorelayctl log start FILE tells more");
    } else {
        chain.Broken("daemon", state, "check again in a moment");
    }
    return false;
}

void CheckRelays(Chain& chain, const Device& device, bool connected) {
    if (!connected) {
        chain.NotChecked("relay", "the daemon is not connected");
        return;
    }
    std::vector<std::string> names;
    std::vector<ServerProbe> probes;
    for (const Json::Value& service : device.status.document["service"]) {
        const Json::Value& tunnel = service["tunnel"];
        const std::string name = "relay for " + service["id"].asString();
        const std::string host = json::TextOf(tunnel, "relay_ip");
        const int port = json::NumberOf(tunnel, "relay_port");
        if (!app::IsRelayHost(host) || !IsPort(port)) {
            chain.Broken(name, "the server has assigned no tunnel",
                         "wait a moment, or ask whoever runs the server");
        } else if (probes.size() < kMostRelays) {
            names.push_back(name);
            ServerProbe& probe = probes.emplace_back();
            probe.url = "http://" + HostAndPort(host, port);
            probe.direct = true;
        }
    }
    RunProbes(probes, kServerPatience);
    for (std::size_t i = 0; i < probes.size(); ++i) {
        const std::string place = probes[i].url.substr(7);
        if (probes[i].fault.empty()) {
            chain.Good(names[i], place);
        } else {
            chain.Broken(names[i], place + ": " + probes[i].fault,
                         "let SSH out to the relay through router and firewall; see: zarorelayctl "
                         "status");
        }
    }
}

} // namespace

int CheckChain(bool json) {
    const Device device = ReadDevice();
    Chain chain;
    // First: another device's server id is a fault of the file as well, but the remedy is clearer
    // here.
    CheckIdentity(chain, device);
    CheckConfiguration(chain, device);
    CheckCredentials(chain);
    CheckClock(chain);
    CheckServers(chain, device);
    CheckSsh(chain);
    CheckServices(chain, device);
    CheckRelays(chain, device, CheckDaemon(chain, device));
    std::cout << (json ? json::Pretty(chain.Document()) : chain.Render(WantsColour()));
    return chain.Holds() ? kSuccess : kNotRunning;
}

} // namespace ZARO::Relay::ctl
