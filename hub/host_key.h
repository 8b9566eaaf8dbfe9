/// The relay's host key, and the settings that its SSH sessions start from.
#pragma once

#include <memory>
#include <string>

#include <libssh/server.h>

namespace ZARO::RelayHub {

using SshBind = std::unique_ptr<ssh_bind_struct, void (*)(ssh_bind)>;

/// Reads the host key from `file`. When there is none, makes one, mode 0600, and warns if
/// `hasDevices`. False with the reason in `error`; then `key` is untouched.
bool LoadHostKey(const std::string& file, bool hasDevices, std::string& key, std::string& error);

/// What sessions with this host key are made from, by one thread at a time; null when the key is
/// unusable.
SshBind MakeSshBind(const std::string& key);

} // namespace ZARO::RelayHub
