/// The names that services have in different parts of the device.
#pragma once

#include <string>

namespace ZARO::services {

/// A service that the firewall's definitions have under another name.
struct Renamed {
    const char* id;
    const char* definition;
};
constexpr Renamed kRenamed[] = {
    {"gallery_http", "http"},
    {"gallery_https", "https"},
    {"music_http", "panel"},
    {"music_https", "panel_https"},
};

/// The name of the definition for a service's id.
inline std::string DefinitionOf(const std::string& id) {
    for (const Renamed& each : kRenamed) {
        if (id == each.id) {
            return each.definition;
        }
    }
    return id;
}

/// The service's id for the name of a definition.
inline std::string IdOf(const std::string& definition) {
    for (const Renamed& each : kRenamed) {
        if (definition == each.definition) {
            return each.id;
        }
    }
    return definition;
}

} // namespace ZARO::services
