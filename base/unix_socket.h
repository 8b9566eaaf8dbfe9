/// Unix stream sockets that have a name in a folder, however long the folder's path is.
#pragma once

#include <chrono>
#include <string>

#include "base/unique_fd.h"

namespace ZARO {

/// Listens on the new socket `name` in `folder` without blocking. From its first instant only this
/// user and root may connect. Not open, with errno, when it failed: EADDRINUSE when there is
/// something of that name.
UniqueFd ListenUnix(const std::string& folder, const char* name);

/// Connects to the socket. Each later read and write, as this call itself, blocks for `patience` at
/// most. Not open, with errno, when it failed: ECONNREFUSED when nobody listens there, EAGAIN when
/// somebody does but accepts no more.
UniqueFd ConnectUnix(const std::string& folder, const char* name, std::chrono::seconds patience);

} // namespace ZARO
