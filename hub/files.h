/// The files in the data folder.
#pragma once

#include <optional>
#include <string>

#include "base/unique_fd.h"

namespace ZARO::RelayHub {

/// Who else may use the data folder at the same time.
enum class FolderUse {
    Alone,  ///< nobody
    Shared, ///< other processes that share it too
};

/// Makes the folder, mode 0700, unless it is there. It must belong to this user. One that others
/// may enter is closed to them if it holds nothing or only a hub's files, else refused untouched.
/// The use lasts while `lock` lives. False with the reason in `error`.
bool OpenDataFolder(const std::string& folder, FolderUse use, UniqueFd& lock, std::string& error);

/// Keeps other processes from being the relay `name` on this folder while `lock` lives. False with
/// the reason in `error`.
bool LockRelayName(const std::string& folder, const std::string& name, UniqueFd& lock,
                   std::string& error);

/// Keeps other processes from the same in the folder of `file` while the result lives; waits until
/// they are through. Closed when the folder can't be opened.
UniqueFd WaitForFolder(const std::string& file);

/// The file in the data folder that holds the host key of relay `name`.
std::string HostKeyFile(const std::string& folder, const std::string& name);

/// A random text that tells this data folder from all others, made at the first use. False with the
/// reason in `error`.
bool OwnerOf(const std::string& folder, std::string& owner, std::string& error);

/// Puts a new file of mode 0600 in the place of `file`. Nobody else can read it at any time, and
/// nobody ever sees half of it. False with the reason in `error`.
bool WritePrivateFile(const std::string& file, const std::string& content, std::string& error);

/// Reads a file of at most 64 KiB; `content` is empty when there is none. False with the reason in
/// `error` when there is one that can't be read.
bool ReadSmallFile(const std::string& file, std::optional<std::string>& content,
                   std::string& error);

} // namespace ZARO::RelayHub
