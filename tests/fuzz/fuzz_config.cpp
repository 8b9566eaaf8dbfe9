/// A configuration file as somebody left it: checked, reloaded, written and read again.
#include "app/common/config_check.h"
#include "base/json.h"
#include "base/paths.h"
#include "tests/fuzz/fuzz.h"

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
    gDevice.Write("/usr/zaro/etc/zarorelayd.conf", input);
    const auto checked = app::CheckConfigFile(paths::ConfigFile(), false);
    assert(conf.Reload() || (checked.unusable && !checked.faults.empty()));
    conf.serverIdCleared = false; // the notification would start a process
    assert(conf.WriteConfigFile(paths::ConfigFile()) && conf.ReadConfigFile(paths::ConfigFile()));
    // The first write drops what a record does not keep; after that nothing changes.
    const bool full = input.size() % 2 == 0; // one form per run, for speed
    const std::string first = Again(input, full), second = Again(first, full);
    const bool kept = full && first.find("\\u") == std::string::npos; // bad UTF-8 is lost
    assert(kept ? second == first : Again(second, full) == second);
}
