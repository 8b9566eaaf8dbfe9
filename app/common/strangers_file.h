/// Files that somebody else may have put in our way.
#pragma once

#include <string>

namespace ZARO::Relay::app {

/// Whether this is a file that no log may go into: a link, another user's file, or one with several
/// names. False when there is none.
bool IsStrangersFile(const std::string& path);

} // namespace ZARO::Relay::app
