/// The files in the data folder.
#pragma once

#include <string>

#include "hub/fd.h"

namespace ZARO::RelayHub {

/// Makes the folder, 0700, unless it is there. It must be our own. An open one is closed to others
/// if it holds a hub's files only or nothing, else refused untouched. The lock keeps a second hub
/// out of it for as long as `lock` lives. False with the reason in `error`.
bool OpenDataFolder(const std::string& folder, Fd& lock, std::string& error);

/// Puts a whole new file of mode 0600 in the place of `file`. Nobody else can read it at any time,
/// and nobody ever sees half of it.
bool WritePrivateFile(const std::string& file, const std::string& content, std::string& error);

/// The content of a file, "" when there is none, which `isThere` tells if it is not null. False
/// when it can't be read or has more than 64 KiB.
bool ReadSmallFile(const std::string& file, std::string* content, std::string& error,
                   bool* isThere = nullptr);

} // namespace ZARO::RelayHub
