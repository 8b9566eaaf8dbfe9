#include <zarorelayd/result.h>

#include "base/json.h"

namespace ZARO::Relay {

std::string GetErrorStr(RELAYD_RET ret) {
    switch (ret) {
    case RELAYD_RET_SUCCESS:
        return "success";
    case RELAYD_RET_CONFIG:
        return "err_config";
    case RELAYD_RET_REGISTER:
        return "err_register";
    case RELAYD_RET_NETWORK:
        return "err_network";
    case RELAYD_RET_RESOLV:
        return "err_resolv";
    case RELAYD_RET_AUTH:
        return "err_auth";
    case RELAYD_RET_NOT_SUPPORT:
        return "err_not_support";
    case RELAYD_RET_SERVER_BUSY:
        return "err_server_busy";
    case RELAYD_RET_LOCK:
        return "err_lock";
    case RELAYD_RET_SERVER_LIMIT:
        return "err_server_limit";
    case RELAYD_RET_SERVER_CHANGED:
        return "err_server_changed";
    case RELAYD_RET_SERVER_IP_CHANGED:
        return "err_server_ip_changed";
    case RELAYD_RET_UNKNOWN:
        break;
    }
    return "err_unknown";
}

std::string GetStateStr(RELAYD_STATE state) {
    switch (state) {
    case RELAYD_STATE_NOT_RUNNING:
        return "not_running";
    case RELAYD_STATE_STARTING:
        return "starting";
    case RELAYD_STATE_LOGIN:
        return "login";
    case RELAYD_STATE_DIRECT_CONNECT:
        return "direct_connect";
    case RELAYD_STATE_CONNECTED:
    case RELAYD_STATE_CONNECTED_ALT: // readers see one state
        return "connected";
    case RELAYD_STATE_LOGOUT:
        return "logout";
    case RELAYD_STATE_STOPED:
        return "stoped";
    case RELAYD_STATE_ERROR:
        break;
    }
    return "error";
}

std::string GetServerErrorStr(RELAYSERVER_ERR err) {
    switch (err) {
    case RELAYSERVER_ERR_SUCCESS:
        return "SUCCESS";
    case RELAYSERVER_ERR_UNKNOWN:
        return "UNKNOWN";
    case RELAYSERVER_ERR_AUTH:
        return "AUTH";
    case RELAYSERVER_ERR_NO_SUCH_API:
        return "NO_SUCH_API";
    case RELAYSERVER_ERR_NO_SUCH_SERV:
        return "NO_SUCH_SERV";
    case RELAYSERVER_ERR_NOT_SUPPORTED_VERSION:
        return "NOT_SUPPORTED_VERSION";
    case RELAYSERVER_ERR_SESSION_TIMEOUT:
        return "SESSION_TIMEOUT";
    case RELAYSERVER_ERR_HAS_TUNNEL:
        return "HAS_TUNNEL";
    case RELAYSERVER_ERR_TL_FAIL:
        return "TL_FAIL";
    case RELAYSERVER_ERR_INPUT:
        return "INPUT";
    case RELAYSERVER_ERR_DDNS_OCCUPIED:
        return "DDNS_OCCUPIED";
    case RELAYSERVER_ERR_SERVER_LIMIT:
        return "SERVER_LIMIT";
    case RELAYSERVER_ERR_SERVER_CHANGED:
        return "SERVER_CHANGED";
    case RELAYSERVER_ERR_IP_CHANGED:
        return "IP_CHANGED";
    }
    return "(unknown errno: " + std::to_string(static_cast<int>(err)) + ")";
}

RELAYSERVER_ERR ParseServerError(const Json::Value& reply) {
    int number = RELAYSERVER_ERR_UNKNOWN;
    if (!json::Get(reply, "errno", number) && reply.isArray() && !reply.empty()) {
        json::Get(reply[0U], "errno", number);
    }
    return static_cast<RELAYSERVER_ERR>(number);
}

RELAYD_RET RespErrMap(RELAYSERVER_ERR err) {
    switch (err) {
    case RELAYSERVER_ERR_SUCCESS:
        return RELAYD_RET_SUCCESS;
    case RELAYSERVER_ERR_UNKNOWN:
    case RELAYSERVER_ERR_HAS_TUNNEL:
    case RELAYSERVER_ERR_TL_FAIL:
        return RELAYD_RET_UNKNOWN;
    // A session that ran out and a taken host name both mean: log in again.
    case RELAYSERVER_ERR_AUTH:
    case RELAYSERVER_ERR_SESSION_TIMEOUT:
    case RELAYSERVER_ERR_DDNS_OCCUPIED:
        return RELAYD_RET_AUTH;
    case RELAYSERVER_ERR_SERVER_LIMIT:
        return RELAYD_RET_SERVER_LIMIT;
    case RELAYSERVER_ERR_SERVER_CHANGED:
        return RELAYD_RET_SERVER_CHANGED;
    case RELAYSERVER_ERR_IP_CHANGED:
        return RELAYD_RET_SERVER_IP_CHANGED;
    case RELAYSERVER_ERR_NO_SUCH_API:
    case RELAYSERVER_ERR_NO_SUCH_SERV:
    case RELAYSERVER_ERR_NOT_SUPPORTED_VERSION:
    case RELAYSERVER_ERR_INPUT: // input that a server refuses now it refuses later too
        break;
    }
    return RELAYD_RET_NOT_SUPPORT; // also for every number that this version does not know
}

} // namespace ZARO::Relay
