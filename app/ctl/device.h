/// What a check needs to know of the device.
#pragma once

#include <zarorelayd/config.h>

#include "app/common/config_check.h"
#include "app/ctl/status.h"

namespace ZARO::Relay::ctl {

/// Read once, for all links of the chain.
struct Device {
    app::CheckedConfig config;
    Status status;
    ServerConf waitServer{nullptr, nullptr}; ///< invalid while it is not known
};

/// Reads configuration and status and asks a running daemon for its wait-command server, 2 s at
/// most.
Device ReadDevice();

} // namespace ZARO::Relay::ctl
