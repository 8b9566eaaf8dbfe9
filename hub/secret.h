/// Random texts, hashes of credentials and their comparison.
#pragma once

#include <string>
#include <string_view>

namespace ZARO::RelayHub {

constexpr std::string_view kLettersAndDigits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

/// `length` of these characters, at most 256 different ones, from the system's random generator.
/// Letters and digits are worth just under 6 bits each.
std::string RandomText(std::size_t length, std::string_view letters = kLettersAndDigits);

/// SHA-256 as 64 hex digits.
std::string Sha256(std::string_view text);

/// Whether two texts are equal. The time that it takes does not depend on where they differ.
bool EqualSecrets(const std::string& left, const std::string& right);

} // namespace ZARO::RelayHub
