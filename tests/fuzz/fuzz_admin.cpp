/// The operator's requests: each line is one. One device is there and has a name, another waits.
#include "base/json.h"
#include "hub/admin.h"
#include "tests/fuzz/fuzz.h"

using namespace ZARO::RelayHub;

void Fuzz(const std::string& input) {
    Store store;
    std::string line;
    // An empty file appears in the current folder, even for a database in memory.
    assert(chdir(gDevice.Dir().c_str()) == 0 && store.Open(":memory:", {1000, 1007, {}}, line));
    Device device;
    const Identity known{"S1", "t", "02004c000001", "Any", "000000005"};
    assert(store.devices.Register(known, "session", device) == StoreResult::Done);
    assert(store.aliases.Map("home", device.key, std::chrono::hours(1)) == StoreResult::Done);
    store.devices.AdmitListedOnly();
    Standing standing = Standing::Unknown;
    const Identity unknown{"S2", "t", "02004c000002", "Any", "000000010"};
    assert(store.admission.Join({unknown, "127.0.0.1", 1}, "", standing) == StoreResult::Done);
    HubOptions options;
    options.database = "postgresql:"; // so that no file is written
    Admin admin(store, options, [](const Changes&) {});
    std::istringstream lines(input);
    while (std::getline(lines, line)) {
        const std::string text = admin.AnswerLine(line);
        Json::Value reply;
        assert(json::Parse(text, reply, json::Grammar::Strict) && reply["ok"].isBool());
        if (!reply["ok"].asBool()) {
            const std::string error = reply["error"].asString();
            assert((reply["code"] == 1 || reply["code"] == 2) && !error.empty());
            assert(error.find('\n') == error.npos && error.find("failed") == error.npos);
        }
    }
}
