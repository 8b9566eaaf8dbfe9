/// What the daemon takes from a server is checked here before it reaches a shell, a file name or an
/// argument vector.
#pragma once

#include <json/value.h>

#include <list>
#include <string>

#include <zarorelayd/config.h>

namespace ZARO::Relay::app {

/// 1 to 63 of letters, digits, "_", "-", ".", not beginning with "-" or ".".
bool IsServiceId(const std::string& id);

/// A host name, "_" allowed as in local networks, or an IPv4 or IPv6 address.
bool IsRelayHost(const std::string& host);

/// 1 to 255 of letters, digits, ".", "_", "-", "+", "=", not beginning with "-".
bool IsRelayUser(const std::string& user);

bool IsPort(int port);

/// Checks a tunnel that a server assigns and takes only the members that belong to one. It must be
/// for one of `services`, with that service's port: no server may choose which ports of the device
/// are reachable. False with the reason in `why`.
bool CheckTunnel(const Json::Value& assigned, const std::list<ServiceConf>& services,
                 Json::Value& tunnel, std::string& why);

/// 1 to 63 of letters, digits, "_", "-", ".": nothing that has a meaning in a form.
bool IsAliasName(const std::string& name);

/// Takes out of a reply to a batch what the library would take on trust and the daemon does not: a
/// server id or a mode that is no short text, false when there was one, and a wait-command server
/// that no URL may be made of, which `goodServer` tells.
bool CleanBatchReply(Json::Value& reply, bool& goodServer);

/// The members that were checked, by name and type; empty or 0 for missing ones.
std::string TextMember(const Json::Value& object, const char* key);
int NumberMember(const Json::Value& object, const char* key);

/// Whether a short text of printable ASCII.
bool IsShortText(const std::string& text);

/// A foreign text for a log line: at most 64 bytes, anything but printable ASCII as "?".
std::string Printable(const std::string& text);

/// Replaces every password, token and cookie in a dump by "***", also inside request bodies.
void MaskSecrets(Json::Value& value);

} // namespace ZARO::Relay::app
