/// Hardware addresses in their text form, six pairs of hex digits joined by colons.
#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace ZARO::Platform {

using Mac = std::array<unsigned char, 6>;

/// Reads an address that can identify a device: the zeros of a loopback or a tunnel can't.
std::optional<Mac> ParseMac(std::string_view text);

} // namespace ZARO::Platform
