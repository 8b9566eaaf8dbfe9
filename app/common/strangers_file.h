/// Files that somebody else may have put in our way.
#pragma once

#include <string>

namespace ZARO::Relay::app {

/// Whether a file is there that no log may go into: a link, another user's, or one of several
/// names.
bool IsStrangersFile(const std::string& path);

} // namespace ZARO::Relay::app
