/// The codes with which the operator of a hub invites a device: "7K3F-Q2MX-91TB". They have no
/// letter that looks like a digit, and the last character shows most typing mistakes.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace ZARO {

/// Characters of a code without its last one, which follows from them; worth 5 bits each.
constexpr std::size_t kInvitationCharacters = 11;

/// The digits of a code, 32 of them. None of I, L, O, U is there.
constexpr std::string_view kInvitationDigits = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";

/// The whole code, without dashes, for kInvitationCharacters of kInvitationDigits.
std::string CompleteInvitation(const std::string& digits);

/// What a person typed as the hub knows it: twelve digits without dashes. Lower case, dashes,
/// blanks, "o" for 0 and "i" or "l" for 1 are understood. Nothing if it can't be a code, as it is
/// mistyped.
std::optional<std::string> ReadInvitation(std::string_view typed);

/// A code as people read it, in three groups.
std::string ShowInvitation(const std::string& code);

} // namespace ZARO
