/// The hub: the first line is a Host header; each further line is sent as a batch and as a form.
#include "base/json.h"
#include "hub/alias.h"
#include "hub/control.h"
#include "hub/http_form.h"
#include "tests/fuzz/fuzz.h"

using namespace ZARO::RelayHub;

void Fuzz(const std::string& input) {
    Store store;
    std::string line, session = CookieValue(input, "session");
    // An empty file appears in the current folder, even for a database in memory.
    assert(chdir(gDevice.Dir().c_str()) == 0 && store.Open(":memory:", {1000, 1007, {}}, line));
    Waiters waiters(store, std::chrono::milliseconds(0));
    const auto isUp = [](int) { return true; };
    Control control(store, waiters, {isUp, [](const auto&) {}}, "");
    Alias alias(store, std::chrono::hours(1), isUp, "");
    std::istringstream lines(input);
    std::getline(lines, line);
    const Origin origin = ParseHost("https", line).value_or(Origin{"http", "localhost", 80, ""});
    while (std::getline(lines, line)) {
        assert(alias.Update(line) != "911" && alias.Query(line, origin) != "911");
        Json::Value replies, tunnel;
        bool isTaken = json::Parse(control.Answer(line, origin, session), replies);
        assert(isTaken && app::CleanBatchReply(replies, isTaken) && isTaken);
        for (const Json::Value& reply : replies) {
            assert(reply["errno"] == 0 || (reply.size() == 1 && reply["errno"] != 1));
            for (const Json::Value& given : reply["tunnels"]) { // a device accepts each
                assert(app::CheckTunnel(given, {ServiceConf(given, false)}, tunnel, line));
            }
        }
    }
}
