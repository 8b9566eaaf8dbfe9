/// The definitions of services that commands write into services.d.
#pragma once

#include <string>

namespace ZARO::Relay::ctl {

/// Whether a title can stand in a definition: 1 to 127 bytes without quotes and control characters.
bool IsTitle(const std::string& title);

/// An id made of a title: its letters and digits in lower case, with "-" for all else. Without any
/// of them, without a title, and where that is a number, "port-8080".
std::string IdFor(const std::string& title, int port);

/// Whether the device has a definition by that id, or one that it takes under another name.
bool IsTaken(const std::string& id);

/// Whether that definition is one that WriteDefinition has made.
bool IsOwnDefinition(const std::string& id);

/// Writes a definition, over none but its own. `title` may be empty. Makes the folder if need be.
/// False, with errno, on failure.
bool WriteDefinition(const std::string& id, const std::string& title, int port);

/// Removes one that WriteDefinition has made; leaves all others alone. False, with errno, on
/// failure.
bool RemoveDefinition(const std::string& id);

} // namespace ZARO::Relay::ctl
