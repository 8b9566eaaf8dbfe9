/// The pages of the control and the alias server.
#pragma once

#include <functional>

#include "hub/alias.h"
#include "hub/control.h"
#include "hub/waiters.h"
#include "hub/web_exchange.h"

namespace ZARO::RelayHub {

/// The page for batches of commands. Its arguments must outlive it.
WebPages ControlPages(Control& control, Waiters& waiters);

/// What a device is told that asks what this server is.
struct HubFacts {
    bool admitsAll = false;
    std::function<int()> aliasPort; ///< of this process's alias pages; 0 = it has none
    std::function<int()> sshPort;   ///< of the relays; 0 = unknown
};

/// The page that says what this server is. Anybody may ask.
WebPages FactPages(HubFacts facts);

/// The pages for names. `alias` must outlive them.
WebPages AliasPages(Alias& alias);

} // namespace ZARO::RelayHub
