/// How changes are written down for other processes: "ORIGIN d 12 13 t 4:user", or "ORIGIN m" for
/// more than can be listed.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "hub/changes.h"

namespace ZARO::RelayHub {

constexpr std::size_t kLongestText = 7900; ///< bytes; a PostgreSQL message has less than 8000

/// The changes in as few texts as hold them. Past sixteen texts there is only one, which says that
/// everything is to be read again.
std::vector<std::string> WriteChanges(const Changes& changes, const std::string& origin);

/// The text which says that everything is to be read again.
std::string WriteMissed(const std::string& origin);

/// Whether this process itself wrote the text.
bool IsFrom(const std::string& text, const std::string& origin);

/// What the text tells. Nothing when everything is to be read again, also because it is malformed.
std::optional<Changes> ReadChanges(const std::string& text);

} // namespace ZARO::RelayHub
