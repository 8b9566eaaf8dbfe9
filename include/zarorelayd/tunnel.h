/// One published service, made reachable through a relay server.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

#include <zarorelayd/config.h>
#include <zarorelayd/export.h>

namespace ZARO::Relay {

/// What became of a tunnel.
enum TUNNEL_STATUS : int {
    TUNNEL_STATUS_NONE = 0,         ///< not started
    TUNNEL_STATUS_READY = 1,        ///< logged in
    TUNNEL_STATUS_CLOSE = 2,        ///< was ready; its process has ended
    TUNNEL_STATUS_FAILED = 3,       ///< could not be started
    TUNNEL_STATUS_INVALID_CONF = 4, ///< for users of the class, which never sets it
};

/// The port of this machine that a service's tunnel leads to: the service's own, which is -1 while
/// it is unknown, except for the one service whose port is fixed.
inline int LocalPort(const ServiceConf& service) {
    return service.id == "syncbay" ? 6691 : service.port;
}

/// An SSH reverse tunnel: a port of the relay server that leads to a local service. For one thread.
/// Only Create waits for anything but files. Does not own the ssh process: destroying the object
/// leaves it running.
class ZARORELAYD_API Tunnel : public Config {
public:
    /// Not valid, not started.
    Tunnel();
    /// The same, then what `v` holds.
    Tunnel(const Json::Value& v);
    Tunnel(const Tunnel&) = default;
    Tunnel& operator=(const Tunnel&) = default;

    /// Takes the service's settings and where and as whom to log in; leaves process and status
    /// alone. True in every case.
    bool Overwrite(const Json::Value& v) override;
    /// False, logged, without a valid service, relay host, port, user or password.
    bool IsValid() const override;
    /// The short form is the service, relay host and port. The full form adds user, password,
    /// status and process id.
    bool Write(Json::Value& out, bool full) const override;
    virtual ~Tunnel(); ///< leaves the ssh process running

    /// Id of the published service. The reference lives as long as the tunnel.
    const std::string& GetServiceId() const;
    /// The published service. The reference lives as long as the tunnel.
    const ServiceConf& GetServiceConf() const;
    /// The server whose port leads here, a name or an address; empty when none was set. The
    /// reference holds until the tunnel is changed.
    const std::string& GetRelayHost() const { return relay_ip_; }
    /// That port; -1 when none was set.
    int GetRelayPort() const { return relay_port_; }
    /// The background ssh process, which may have ended meanwhile; -1 when none is known.
    pid_t GetPid() const { return pid_; }
    /// The status as it was last found; see CheckStatusChanged.
    TUNNEL_STATUS GetStatus() const;
    /// The enumerator's name; "(unknown)" for other values.
    static std::string GetStatusStr(TUNNEL_STATUS status);

    /// Compares settings, not process and status.
    bool operator==(const Tunnel& other) const;
    bool operator!=(const Tunnel& other) const;

    /// Whether the ssh process exists (also if it has ended but nobody has reaped it). Forgets one
    /// that does not exist or can't be signalled.
    bool IsAlive();

    /// True once when a tunnel that was ready has lost its process; its status is CLOSE then.
    bool CheckStatusChanged();

    /// Sends SIGTERM to the ssh process; does not wait. True also without a process; false when it
    /// can't be signalled.
    bool Destroy();

    /// Makes this a tunnel that was never started: no process, status NONE. The settings stay. A
    /// process that runs goes on, and Destroy does not reach it any more.
    void ForgetProcess() {
        pid_ = -1;
        status_ = TUNNEL_STATUS_NONE;
    }

    /// Starts the SSH client and blocks until it has logged in and gone to the background, or has
    /// failed; only the client's own time-outs bound this. The password is in a file during that
    /// time only. True with status READY; false, logged, with FAILED, or with NONE when nothing was
    /// started. Does not stop the process of an earlier call.
    /// WARNING: when the client can't be executed, this returns false in the forked child too. The
    /// caller must end the child at once with _exit, since the parent waits for it. Between the
    /// fork and that return the child neither allocates nor logs.
    bool Create();

    /// Writes the password, and nothing else, into a new file of mode 0600; a file or link of that
    /// name is removed first. False, logged and the file gone, on failure.
    bool WritePassFile(const std::string& path) const;

    /// Replaces this process by the SSH client, which reads the password from `passFile`. Returns
    /// only on failure: false, and logged unless the path is null.
    bool RunSSHTunnel(const char* passFile) const;

private:
    bool FindBackgroundPid(const char* search);

    std::int32_t pid_;     ///< the ssh process; -1: none
    std::string relay_ip_; ///< name or address
    std::string relay_user_;
    std::string relay_pass_;
    std::int32_t relay_port_; ///< the port that visitors open; -1: unknown
    ServiceConf service_;
    TUNNEL_STATUS status_;
};

} // namespace ZARO::Relay
