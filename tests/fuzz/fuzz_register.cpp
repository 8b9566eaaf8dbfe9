/// Replies to registration batches, one per line, while the device's settings change in between.
#include "base/json.h"
#include "base/text.h"
#include "tests/fuzz/fuzz.h"

void Fuzz(const std::string& input) {
    RelaydConf conf(nullptr);
    Register device;
    std::list<Tunnel> tunnels;
    std::istringstream lines(input);
    for (std::string line; std::getline(lines, line);) {
        Json::Value sent, reply, next;
        bool goodServer = true;
        (void)(line.size() % 2 == 0 ? conf.AddServiceById("web") : conf.RemoveServiceById("web"));
        conf.network.gateway = line.substr(0, 1);
        device.GetChanges(conf, tunnels, sent);
        (void)json::Parse(line, reply);
        RelaydConf trusting(conf);
        Register(device).ParseResponse(trusting, sent, reply);
        app::CleanBatchReply(reply, goodServer);
        const bool good = device.ParseResponse(conf, sent, reply);
        assert(IsPrintable(conf.serverID) && IsPrintable(conf.network.mode));
        assert(conf.waitcmd.GetUrl(nullptr).find_first_of(" \r\n\"<>@#?") == std::string::npos);
        device.GetChanges(conf, tunnels, next); // repeats what the server did not acknowledge
        assert(good == (reply.isArray() && next.empty()) && next.size() <= sent.size());
    }
}
