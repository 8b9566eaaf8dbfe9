/// The hub: the first line is a Host header; each further line is sent as a batch and as a form.
#include "base/json.h"
#include "hub/alias.h"
#include "hub/control.h"
#include "hub/http_form.h"
#include "hub/web_parser.h"
#include "tests/fuzz/fuzz.h"

using namespace ZARO::RelayHub;

namespace {

/// Takes the input as HTTP, in two parts.
void FuzzHttp(const std::string& input) {
    static const WebPages kPages = {{"/", nullptr}};
    WebParser parser(kPages);
    std::string rest = input.substr(0, input.size() / 2);
    auto progress = WebParser::Progress::More;
    for (const std::string& more : {std::string(), input.substr(input.size() / 2)}) {
        rest += more;
        do {
            progress = parser.Take(rest);
        } while (progress == WebParser::Progress::Head);
        if (progress != WebParser::Progress::More) {
            break;
        }
    }
    if (progress == WebParser::Progress::Whole) {
        (void)parser.MayGoOn();
        assert(parser.TakeBody().size() <= 256 << 10);
    }
}

} // namespace

void Fuzz(const std::string& input) {
    FuzzHttp(input);
    static Loops loops; // not started: nothing is held
    Store store;
    std::string line, session = CookieValue(input, "session");
    // An empty file appears in the current folder, even for a database in memory.
    assert(chdir(gDevice.Dir().c_str()) == 0 && store.Open(":memory:", {1000, 1007, {}}, line));
    if (!CookieValue(input, "listed").empty()) {
        store.devices.AdmitListedOnly();
    }
    Waiters waiters(loops, store, std::chrono::milliseconds(0));
    waiters.Stop();
    const auto isUp = [](const auto&) { return true; };
    Control control(store, waiters, {isUp, [](const auto&) {}}, "");
    Alias alias(store, std::chrono::hours(1), isUp, "");
    std::istringstream lines(input);
    std::getline(lines, line);
    const Origin origin = ParseHost("https", line).value_or(Origin{"http", "localhost", 80, ""});
    while (std::getline(lines, line)) {
        assert(alias.Update(line) != "911" && alias.Query(line, origin) != "911");
        std::string answer;
        (void)control.Answer(line, origin, session, [&](std::string text, const std::string& now) {
            answer = std::move(text);
            session = now;
        });
        Json::Value replies, tunnel;
        bool isTaken = json::Parse(answer, replies);
        assert(isTaken && app::CleanBatchReply(replies, isTaken) && isTaken);
        for (const Json::Value& reply : replies) {
            assert(reply["errno"] == 0 ||
                   (reply["errno"] != 1 && (reply.size() == 1 || reply["errno"] != 9)));
            for (const Json::Value& given : reply["tunnels"]) { // a device accepts each
                assert(app::CheckTunnel(given, {ServiceConf(given, false)}, tunnel, line));
            }
        }
    }
}
