/// Checks the whole chain from the configuration to the relay, link by link.
#pragma once

namespace ZARO::Relay::ctl {

/// Prints one line per link and the remedy for the first broken one. Takes 10 s at most. Changes
/// nothing, except for what the platform creates at its first use. 0 when all links hold, else 1.
int CheckChain(bool json);

} // namespace ZARO::Relay::ctl
