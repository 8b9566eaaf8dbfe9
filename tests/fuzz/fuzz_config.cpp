/// A configuration file as somebody left it: checked, reloaded, written and read again.
#include "base/paths.h"
#include "base/json.h"
#include "tests/fuzz/fuzz.h"

#include "app/common/config_check.h"

/// What a record that has read `text` writes.
static std::string Again(const std::string& text, bool full) {
    Json::Value value;
    RelaydConf conf(nullptr);
    (void)json::Parse(text, value);
    assert(conf.Overwrite(value) == value.isObject() && conf.Write(value = Json::Value(), full));
    return json::Styled(value);
}

void Fuzz(const std::string& input) {
    RelaydConf conf(nullptr);
    bool unusable = false;
    gDevice.Write("/usr/zaro/etc/zarorelayd.conf", input);
    const auto faults = app::CheckConfigFile(paths::ConfigFile(), false, unusable);
    assert(conf.Reload() || (unusable && !faults.empty()));
    conf.serverIdCleared = false; // its notification would be a process
    assert(conf.WriteConfigFile(paths::ConfigFile()) && conf.ReadConfigFile(paths::ConfigFile()));
    // The first writing drops what is not kept; from then on nothing changes any more.
    const bool full = input.size() % 2 == 0; // one form a run, for the pace
    const std::string first = Again(input, full), second = Again(first, full);
    const bool kept = full && first.find("\\u") == std::string::npos; // bad UTF-8 is not
    assert(kept ? second == first : Again(second, full) == second);
}
