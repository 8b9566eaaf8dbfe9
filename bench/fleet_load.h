/// Visitors: small requests beside downloads.
#pragma once

#include "bench/fleet_swarm.h"

namespace ZARO::Fleet {

/// Sends small requests to one device, one after the other, while `downloads` other devices send
/// data as fast as it goes, and checks how long an answer takes. Both take `length`.
void MeasureSmallRequests(Swarm& swarm, int downloads, seconds length);

} // namespace ZARO::Fleet
