/// Replies to the long poll, one per line, and the tunnels that the daemon makes of them.
#include "base/json.h"
#include "tests/fuzz/fuzz.h"

void Fuzz(const std::string& input) {
    static JobQueue queue;
    static RelaydConf conf(nullptr);
    assert(conf.AddServiceById("web") && conf.AddServiceById("a.b-c_d"));
    app::TunnelKeeper keeper;
    app::Exchange exchange(conf, queue, keeper, [] {});
    std::istringstream lines(input);
    for (std::string line; std::getline(lines, line);) {
        Json::Value reply;
        (void)json::Parse(line, reply);
        const RELAYD_RET result = exchange.TakeWaitReply(reply, app::Time());
        const Json::Value taken = keeper.Dump();
        assert(exchange.TakeWaitReply(reply, app::Time()) == result && keeper.Dump() == taken);
        for (const Tunnel& tunnel : keeper.Tunnels()) {
            const auto own = conf.GetServiceById(tunnel.GetServiceId());
            assert(own != conf.services.end() && own->port == tunnel.GetServiceConf().port);
            assert(tunnel.IsValid() && !keeper.Describe(own->id).isMember("relay_pass"));
        }
    }
}
