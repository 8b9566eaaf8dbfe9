/// What the daemon takes from a server is checked here before it reaches a shell, a file name or an
/// argument vector.
#pragma once

#include <json/value.h>

#include <list>
#include <optional>
#include <string>

#include <zarorelayd/config.h>

#include "app/common/clock.h"

namespace ZARO::Relay::app {

/// The answer to a single command, which comes alone or as the first element of an array.
const Json::Value& AnswerOf(const Json::Value& reply);

/// Checks a tunnel that a server assigns and takes only the members that belong to one. It must be
/// for one of `services`, with that service's port: no server may choose which ports of the device
/// are reachable. False with the reason in `why`.
bool CheckTunnel(const Json::Value& assigned, const std::list<ServiceConf>& services,
                 Json::Value& tunnel, std::string& why);

/// How long a server that refuses a device asks it to wait before it registers again: 5 to 60 s,
/// whatever number the answer has. Nothing when it has none.
std::optional<seconds> RetryAfter(const Json::Value& answer);

/// Removes from a reply to a batch what the library would trust and the daemon does not. False when
/// that was a server id or a mode that is not a short printable text. `goodServer` becomes false
/// when it was a wait-command server that must not become part of a URL, else true.
bool CleanBatchReply(Json::Value& reply, bool& goodServer);

} // namespace ZARO::Relay::app
