/// A tunnel's log-in at its relay.
#pragma once

#include <zarorelayd/tunnel.h>

#include "app/daemon/child_watch.h"

namespace ZARO::Relay::app {

/// Starts the tunnel's SSH client, blocks until it has logged in or failed, and gives its
/// background process to `children`. False when the tunnel has no process of its own; whatever the
/// client left behind has been ended then.
bool LogIn(Tunnel& tunnel, ChildWatch& children);

} // namespace ZARO::Relay::app
