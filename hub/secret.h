/// Random texts, hashes of credentials and their comparison.
#pragma once

#include <string>
#include <string_view>

namespace ZARO::RelayHub {

/// `length` random letters and digits, just under 6 bits each, from the system's generator.
std::string RandomText(std::size_t length);

/// SHA-256 as 64 hex digits.
std::string Sha256(std::string_view text);

/// Whether two texts are equal; the time it takes tells nothing about where they differ.
bool EqualSecrets(const std::string& left, const std::string& right);

} // namespace ZARO::RelayHub
