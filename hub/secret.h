/// Random texts, hashes of credentials and their comparison.
#pragma once

#include <string>
#include <string_view>

namespace ZARO::RelayHub {

/// `length` letters and digits from the system's random generator, worth just under 6 bits each.
std::string RandomText(std::size_t length);

/// SHA-256 as 64 hex digits.
std::string Sha256(std::string_view text);

/// Whether two texts are equal. The time that it takes does not depend on where they differ.
bool EqualSecrets(const std::string& left, const std::string& right);

} // namespace ZARO::RelayHub
