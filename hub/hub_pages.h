/// The pages of the control and the alias server.
#pragma once

#include "hub/alias.h"
#include "hub/control.h"
#include "hub/waiters.h"
#include "hub/web_exchange.h"

namespace ZARO::RelayHub {

/// The page for batches of commands. Its arguments must outlive it.
WebPages ControlPages(Control& control, Waiters& waiters);

/// The pages for names. `alias` must outlive them.
WebPages AliasPages(Alias& alias);

} // namespace ZARO::RelayHub
