/// Takes the control server's commands apart and checks everything in them.
#pragma once

#include <string>
#include <vector>

#include <json/value.h>

#include "hub/store_devices.h"
#include "hub/store_services.h"

namespace ZARO::RelayHub {

/// Parses a batch. False when it is anything but one strict JSON array of at most 16 commands, or
/// when it has more values than a batch can need.
bool ParseBatch(const std::string& body, Json::Value& commands);

// Each of the following returns false when the command is malformed; then its outputs are in any
// state.

/// Takes "register".
bool TakeIdentity(const Json::Value& command, Identity& identity);

/// Takes "update_network": `network` gets the known members of the command.
bool TakeNetwork(const Json::Value& command, Json::Value& network);

/// Takes "update_service".
bool TakeServices(const Json::Value& command, std::vector<ServiceRecord>& present,
                  std::vector<std::string>& removed);

/// Takes "wait_command": whose tunnel list, and the revision of it that the device has.
bool TakeWait(const Json::Value& command, std::string& serverId, int& revision);

} // namespace ZARO::RelayHub
