/// The daemon's result codes and states, and the control server's error numbers.
#pragma once

#include <json/value.h>

#include <string>

#include <zarorelayd/export.h>

namespace ZARO::Relay {

/// Outcome of the daemon's work. 1, 2 and 4 are reserved and read as "err_unknown".
enum RELAYD_RET : int {
    RELAYD_RET_SUCCESS = 0,
    RELAYD_RET_CONFIG = 3,
    RELAYD_RET_REGISTER = 5,
    RELAYD_RET_NETWORK = 6,
    RELAYD_RET_RESOLV = 7,
    RELAYD_RET_AUTH = 8,
    RELAYD_RET_NOT_SUPPORT = 9,
    RELAYD_RET_SERVER_BUSY = 10,
    RELAYD_RET_LOCK = 11,
    RELAYD_RET_SERVER_LIMIT = 12,
    RELAYD_RET_SERVER_CHANGED = 13,
    RELAYD_RET_SERVER_IP_CHANGED = 14,
    RELAYD_RET_UNKNOWN = 255,
};

/// What the daemon is doing.
enum RELAYD_STATE : int {
    RELAYD_STATE_ERROR = 0,
    RELAYD_STATE_NOT_RUNNING = 1,
    RELAYD_STATE_STARTING = 2,
    RELAYD_STATE_LOGIN = 3,
    RELAYD_STATE_DIRECT_CONNECT = 4,
    RELAYD_STATE_CONNECTED = 5,
    RELAYD_STATE_CONNECTED_ALT = 6,
    RELAYD_STATE_LOGOUT = 7,
    RELAYD_STATE_STOPED = 8, ///< as its text, so spelled for all who read it
};

/// Error numbers of the control server. A server may send others; 12 is a gap.
enum RELAYSERVER_ERR : int {
    RELAYSERVER_ERR_SUCCESS = 0,
    RELAYSERVER_ERR_UNKNOWN = 1,
    RELAYSERVER_ERR_AUTH = 2,
    RELAYSERVER_ERR_NO_SUCH_API = 3,
    RELAYSERVER_ERR_NO_SUCH_SERV = 4,
    RELAYSERVER_ERR_NOT_SUPPORTED_VERSION = 5,
    RELAYSERVER_ERR_SESSION_TIMEOUT = 6,
    RELAYSERVER_ERR_HAS_TUNNEL = 7,
    RELAYSERVER_ERR_TL_FAIL = 8,
    RELAYSERVER_ERR_INPUT = 9,
    RELAYSERVER_ERR_DDNS_OCCUPIED = 10,
    RELAYSERVER_ERR_SERVER_LIMIT = 11,
    RELAYSERVER_ERR_SERVER_CHANGED = 13,
    RELAYSERVER_ERR_IP_CHANGED = 14,
};

// All five are pure and may be used from any thread.

/// "success", "err_config", ...; "err_unknown" for every value without a name.
ZARORELAYD_API std::string GetErrorStr(RELAYD_RET ret);

/// "error", "not_running", ...; "error" for every value without a name.
ZARORELAYD_API std::string GetStateStr(RELAYD_STATE state);

/// "SUCCESS", "AUTH", ...; "(unknown errno: N)" for every number without a name.
ZARORELAYD_API std::string GetServerErrorStr(RELAYSERVER_ERR err);

/// The "errno" of a reply (an object, or an array whose first element is one), unchanged also when
/// it is outside the enumeration. A reply without an integer "errno" is an error:
/// RELAYSERVER_ERR_UNKNOWN.
ZARORELAYD_API RELAYSERVER_ERR ParseServerError(const Json::Value& reply);

/// What a server's error number means for the daemon; RELAYD_RET_NOT_SUPPORT for unknown ones.
ZARORELAYD_API RELAYD_RET RespErrMap(RELAYSERVER_ERR err);

} // namespace ZARO::Relay
