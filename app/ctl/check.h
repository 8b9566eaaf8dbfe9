/// The whole chain from the configuration to the relay, link by link.
#pragma once

namespace ZARO::Relay::ctl {

/// Prints one line a link and what mends the first that is broken; 10 s at most. Changes nothing
/// but what the platform makes at first use. 0 when all hold, else 1.
int Check(bool json);

} // namespace ZARO::Relay::ctl
