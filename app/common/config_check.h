/// Says what is wrong with a configuration file, without touching it.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include <zarorelayd/config.h>

namespace ZARO::Relay::app {

/// A configuration file as it was read, once, and what is wrong with it.
struct CheckedConfig {
    Json::Value document;            ///< null when there is no file, or none that is a JSON object
    RelaydConf conf{nullptr};        ///< the defaults and, over them, the document
    std::vector<std::string> faults; ///< one line each: file, key and what was expected
    bool unusable = false;           ///< the daemon can't start with it

    /// Whether there is a JSON object, or no file where none is needed.
    bool IsReadable() const { return !unusable || document.isObject(); }
};

/// Reads a configuration file. Unlike the library it never moves a broken one aside. `config` stays
/// null for a missing one. False when it can't be read or is no JSON object, or when it is missing
/// but must not be; `fault` is then a line that names the file.
bool ReadConfigFile(const std::string& path, bool mayBeMissing, Json::Value& config,
                    std::string& fault);

/// Reads and checks a configuration file. A missing one has no faults when it `mayBeMissing`. The
/// library logs nothing meanwhile, since `faults` says it better.
CheckedConfig CheckConfigFile(const std::string& path, bool mayBeMissing);

/// The same for a running daemon, which keeps its settings when `unusable`. That includes services
/// that are no list, which the library would take for an empty one.
CheckedConfig CheckReload(const std::string& path, bool mayBeMissing);

} // namespace ZARO::Relay::app
