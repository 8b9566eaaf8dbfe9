#include "base/invitation_code.h"

namespace ZARO {

namespace {

constexpr std::size_t kGroup = 4;

/// The digit that a typed character stands for; npos if none.
std::size_t DigitOf(char typed) {
    const bool isLower = typed >= 'a' && typed <= 'z';
    const char upper = isLower ? static_cast<char>(typed - 'a' + 'A') : typed;
    const char meant = upper == 'O' ? '0' : upper == 'I' || upper == 'L' ? '1' : upper;
    return kInvitationDigits.find(meant);
}

/// Luhn's sum, to the base of 32: every second digit counts twice, beginning with the last one.
/// Sees each single mistake and nearly every swap of two neighbours.
std::size_t LuhnSum(const std::string& digits) {
    const std::size_t base = kInvitationDigits.size();
    std::size_t sum = 0;
    std::size_t factor = 2;
    for (auto digit = digits.rbegin(); digit != digits.rend(); ++digit) {
        const std::size_t weighted = kInvitationDigits.find(*digit) * factor;
        sum += weighted / base + weighted % base;
        factor = 3 - factor;
    }
    return sum % base;
}

} // namespace

std::string CompleteInvitation(const std::string& digits) {
    const std::size_t base = kInvitationDigits.size();
    return digits + kInvitationDigits[(base - LuhnSum(digits)) % base];
}

std::optional<std::string> ReadInvitation(std::string_view typed) {
    std::string digits;
    for (const char character : typed) {
        if (character == '-' || character == ' ') {
            continue;
        }
        const std::size_t digit = DigitOf(character);
        if (digit == std::string_view::npos || digits.size() > kInvitationCharacters) {
            return std::nullopt;
        }
        digits += kInvitationDigits[digit];
    }
    if (digits.size() != kInvitationCharacters + 1 ||
        CompleteInvitation(digits.substr(0, kInvitationCharacters)) != digits) {
        return std::nullopt;
    }
    return digits;
}

std::string ShowInvitation(const std::string& code) {
    std::string shown;
    for (std::size_t at = 0; at < code.size(); at += kGroup) {
        shown += (at == 0 ? "" : "-") + code.substr(at, kGroup);
    }
    return shown;
}

} // namespace ZARO
