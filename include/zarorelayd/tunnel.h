/// One published service, made reachable through a relay server.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

#include <zarorelayd/config.h>
#include <zarorelayd/export.h>

namespace ZARO::Relay {

enum TUNNEL_STATUS : int {
    TUNNEL_STATUS_NONE = 0,
    TUNNEL_STATUS_READY = 1,
    TUNNEL_STATUS_CLOSE = 2,
    TUNNEL_STATUS_FAILED = 3,
    TUNNEL_STATUS_INVALID_CONF = 4, ///< for users of the class; it never sets this itself
};

/// The port of this machine that a service's tunnel leads to: the service's own, which is -1 while
/// it is unknown, except for the one service whose port is fixed.
inline int LocalPort(const ServiceConf& service) {
    return service.id == "syncbay" ? 6691 : service.port;
}

/// An SSH reverse tunnel: a port of the relay server that leads to a local service. One thread.
/// Does not own the ssh process: destroying the object leaves it running.
class ZARORELAYD_API Tunnel : public Config {
public:
    Tunnel();
    Tunnel(const Json::Value& v);
    Tunnel(const Tunnel&) = default;
    Tunnel& operator=(const Tunnel&) = default;

    /// True in every case.
    bool Overwrite(const Json::Value& v) override;
    /// False, logged, without a valid service or any of relay host, port, user and password.
    bool IsValid() const override;
    /// The full form holds the password.
    bool Write(Json::Value& out, bool full) const override;
    virtual ~Tunnel();

    const std::string& GetServiceId() const;
    const ServiceConf& GetServiceConf() const;
    /// The server whose port leads here, a name or an address; empty when none was set. The
    /// reference holds until the tunnel is changed.
    const std::string& GetRelayHost() const { return relay_ip_; }
    /// That port; -1 when none was set.
    int GetRelayPort() const { return relay_port_; }
    /// The background ssh process, which may have ended meanwhile; -1 when none is known.
    pid_t GetPid() const { return pid_; }
    TUNNEL_STATUS GetStatus() const;
    static std::string GetStatusStr(TUNNEL_STATUS status);

    /// Settings count; process and status do not.
    bool operator==(const Tunnel& other) const;
    bool operator!=(const Tunnel& other) const;

    /// Whether the ssh process lives; a dead one is forgotten.
    bool IsAlive();

    /// True once when a tunnel that was ready has lost its process: it is closed then.
    bool CheckStatusChanged();

    /// Asks the ssh process to end. True when it was asked or there is none.
    bool Destroy();

    /// Makes this a tunnel that was never started: no process, status NONE. The settings stay. A
    /// process that runs goes on, and Destroy does not reach it any more.
    void ForgetProcess() {
        pid_ = -1;
        status_ = TUNNEL_STATUS_NONE;
    }

    /// Starts the SSH client and blocks until it has logged in and gone to the background, or has
    /// failed (its own time-outs bound this). The password is in a file only meanwhile. True with
    /// status READY; false with FAILED, or NONE when nothing was started. Does not stop a process
    /// of an earlier call. WARNING: when the client can't be executed it returns false in the
    /// forked child too, which the caller must end at once with _exit: the parent waits for that.
    /// Between the fork and that return the child neither allocates nor logs.
    bool Create();

    /// Writes the password, and nothing else, into a file of mode 0600. False, logged and the file
    /// gone, on failure.
    bool WritePassFile(const std::string& path) const;

    /// Becomes the SSH client, in place of this process. Returns, false and logged, only on
    /// failure; for a null path false without a line.
    bool RunSSHTunnel(const char* passFile) const;

private:
    bool FindBackgroundPid(const char* search);

    std::int32_t pid_;
    std::string relay_ip_;
    std::string relay_user_;
    std::string relay_pass_;
    std::int32_t relay_port_;
    ServiceConf service_;
    TUNNEL_STATUS status_;
};

} // namespace ZARO::Relay
