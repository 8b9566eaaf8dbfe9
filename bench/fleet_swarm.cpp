#include "bench/fleet_swarm.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>

#include "base/json.h"

namespace ZARO::Fleet {

namespace {

/// Devices of one process: each takes two descriptors, and visitors need none.
constexpr int kMostDevices = 4900;

UniqueFd ConnectTo(const std::string& path) {
    sockaddr_un name = {AF_UNIX, {}};
    if (path.size() >= sizeof name.sun_path) {
        throw std::runtime_error("too long a path for a socket: " + path);
    }
    (void)path.copy(name.sun_path, path.size());
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto connected = [&] {
        return connect(socket.Get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0;
    };
    if (!Within(seconds(10), connected)) {
        throw std::runtime_error("the devices' process does not answer");
    }
    return socket;
}

} // namespace

Swarm::Swarm(int devices, const std::string& folder) : size_(devices) {
    const int count = std::max(2, (devices + kMostDevices - 1) / kMostDevices);
    for (int i = 0; i < count; ++i) {
        const std::string path = folder + "/devices" + std::to_string(i);
        Member& member = members_.emplace_back();
        member.process = std::make_unique<Process>(
            std::vector<std::string>{ZARO_FLEET_DEVICES, path}, path + ".log");
        member.socket = ConnectTo(path);
        const int first = devices * i / count;
        const int next = devices * (i + 1) / count;
        (void)Ask(member, Text("make %d %d", first + 1, next - first));
    }
}

void Swarm::Tell(const std::string& command) {
    for (const Member& member : members_) {
        (void)Ask(member, command);
    }
}

void Swarm::Tell(const std::string& command, int count) {
    const int processes = static_cast<int>(members_.size());
    for (int i = 0; i < processes; ++i) {
        const int share = count * (i + 1) / processes - count * i / processes;
        (void)Ask(members_[static_cast<std::size_t>(i)], command + " " + std::to_string(share));
    }
}

Json::Value Swarm::Report() {
    Json::Value sums(Json::objectValue);
    for (const Member& member : members_) {
        const Json::Value part = Ask(member, "report");
        for (const std::string& name : part.getMemberNames()) {
            const unsigned number = part[name].asUInt();
            const unsigned before = sums[name].asUInt();
            sums[name] = name.rfind("most", 0) == 0 ? std::max(before, number) : before + number;
        }
    }
    return sums;
}

std::vector<double> Swarm::Back() {
    std::vector<double> all;
    for (const Member& member : members_) {
        for (const Json::Value& time : Ask(member, "back")) {
            all.push_back(time.asDouble() / 1000);
        }
    }
    std::sort(all.begin(), all.end());
    return all;
}

std::vector<Swarm::Address> Swarm::Ports(std::size_t process, int count) {
    std::vector<Address> ports;
    for (const Json::Value& port : Ask(members_[process], "ports " + std::to_string(count))) {
        ports.emplace_back(port[0].asString(), port[1].asInt());
    }
    return ports;
}

double Swarm::WaitFor(const char* name, int count, seconds limit) {
    const auto start = Clock::now();
    const auto took = [start] {
        return std::chrono::duration<double>(Clock::now() - start).count();
    };
    for (; took() < static_cast<double>(limit.count()); poll(nullptr, 0, 200)) {
        if (Report()[name].asInt() >= count) {
            return took();
        }
    }
    return -1;
}

Usage Swarm::Take() const {
    Usage usage;
    for (const Member& member : members_) {
        usage.Add(member.process->Pid());
    }
    return usage;
}

Json::Value Swarm::Ask(const Member& member, const std::string& command) const {
    const std::string line = command + "\n";
    bool good = send(member.socket.Get(), line.data(), line.size(), MSG_NOSIGNAL) ==
                static_cast<ssize_t>(line.size());
    std::string answer;
    char part[65536];
    while (good && (answer.empty() || answer.back() != '\n')) {
        const ssize_t got = recv(member.socket.Get(), part, sizeof part, 0);
        good = got > 0;
        answer.append(part, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    }
    Json::Value value;
    if (!good || !json::Parse(answer, value)) {
        throw std::runtime_error("a process with devices is gone");
    }
    return value;
}

} // namespace ZARO::Fleet
