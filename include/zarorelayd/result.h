/// The daemon's result codes and states, and the control server's error numbers.
#pragma once

#include <json/value.h>

#include <string>

#include <zarorelayd/export.h>

namespace ZARO::Relay {

/// Outcome of the daemon's work. 1, 2 and 4 are reserved and read as "err_unknown".
enum RELAYD_RET : int {
    RELAYD_RET_SUCCESS = 0,
    RELAYD_RET_CONFIG = 3,             ///< no usable configuration or credentials
    RELAYD_RET_REGISTER = 5,           ///< kept for its readers: nothing sets it
    RELAYD_RET_NETWORK = 6,            ///< the server can't be reached
    RELAYD_RET_RESOLV = 7,             ///< no address for the server's name
    RELAYD_RET_AUTH = 8,               ///< not logged in, or wrong credentials: register again
    RELAYD_RET_NOT_SUPPORT = 9,        ///< the server can't do what was asked
    RELAYD_RET_SERVER_BUSY = 10,       ///< the server failed for now: retry
    RELAYD_RET_LOCK = 11,              ///< somebody else holds a lock: retry
    RELAYD_RET_SERVER_LIMIT = 12,      ///< the server has no room
    RELAYD_RET_SERVER_CHANGED = 13,    ///< another server is in charge of the device
    RELAYD_RET_SERVER_IP_CHANGED = 14, ///< the server has another address
    RELAYD_RET_UNKNOWN = 255,
};

/// What the daemon is doing.
enum RELAYD_STATE : int {
    RELAYD_STATE_ERROR = 0, ///< a RELAYD_RET tells which
    RELAYD_STATE_NOT_RUNNING = 1,
    RELAYD_STATE_STARTING = 2,
    RELAYD_STATE_LOGIN = 3,          ///< registering, or not yet waiting for commands
    RELAYD_STATE_DIRECT_CONNECT = 4, ///< kept for its readers: nothing sets it
    RELAYD_STATE_CONNECTED = 5,      ///< registered and waiting for commands
    RELAYD_STATE_CONNECTED_ALT = 6,  ///< shown as connected too
    RELAYD_STATE_LOGOUT = 7,         ///< stopping
    RELAYD_STATE_STOPED = 8,         ///< switched off; the spelling, also of its text, stays
};

/// Error numbers of the control server. A server may send others; 12 is a gap.
enum RELAYSERVER_ERR : int {
    RELAYSERVER_ERR_SUCCESS = 0,
    RELAYSERVER_ERR_UNKNOWN = 1,               ///< the server failed
    RELAYSERVER_ERR_AUTH = 2,                  ///< wrong credentials
    RELAYSERVER_ERR_NO_SUCH_API = 3,           ///< unknown command
    RELAYSERVER_ERR_NO_SUCH_SERV = 4,          ///< unknown service
    RELAYSERVER_ERR_NOT_SUPPORTED_VERSION = 5, ///< unknown version of the protocol
    RELAYSERVER_ERR_SESSION_TIMEOUT = 6,       ///< no session, or one that ran out
    RELAYSERVER_ERR_HAS_TUNNEL = 7,
    RELAYSERVER_ERR_TL_FAIL = 8,
    RELAYSERVER_ERR_INPUT = 9,           ///< malformed command
    RELAYSERVER_ERR_DDNS_OCCUPIED = 10,  ///< the host name is taken
    RELAYSERVER_ERR_SERVER_LIMIT = 11,   ///< no room
    RELAYSERVER_ERR_SERVER_CHANGED = 13, ///< another server is in charge of the device
    RELAYSERVER_ERR_IP_CHANGED = 14,     ///< the server has another address
};

// These five functions are pure and may be used from any thread.

/// "success", "err_config", ...; "err_unknown" for every value without a name.
ZARORELAYD_API std::string GetErrorStr(RELAYD_RET ret);

/// "error", "not_running", ...; "error" for every value without a name.
ZARORELAYD_API std::string GetStateStr(RELAYD_STATE state);

/// "SUCCESS", "AUTH", ...; "(unknown errno: N)" for every number without a name.
ZARORELAYD_API std::string GetServerErrorStr(RELAYSERVER_ERR err);

/// The "errno" of a reply (an object, or an array whose first element is one), even if it is
/// outside the enumeration. RELAYSERVER_ERR_UNKNOWN when there is no integer "errno".
ZARORELAYD_API RELAYSERVER_ERR ParseServerError(const Json::Value& reply);

/// What a server's error number means for the daemon; RELAYD_RET_NOT_SUPPORT for numbers outside
/// the enumeration.
ZARORELAYD_API RELAYD_RET RespErrMap(RELAYSERVER_ERR err);

} // namespace ZARO::Relay
