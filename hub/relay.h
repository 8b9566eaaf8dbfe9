/// The SSH relay: devices log in and have their visitors forwarded to them.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <libssh/server.h>

#include "base/unique_fd.h"
#include "hub/log.h"
#include "hub/net.h"
#include "hub/relay_session.h"
#include "hub/store.h"
#include "hub/threads.h"
#include "hub/waker.h"

namespace ZARO::RelayHub {

/// Accepts each tunnel's own user and password, and opens the tunnel's own port, nothing else. One
/// thread per session. Any thread may call the public methods.
class Relay : private RelayDesk {
public:
    using StatusChanged = std::function<void(TunnelStatus status)>;

    /// `visitorAddress` is where the tunnels' ports listen. `statusChanged` is told when a tunnel
    /// goes up or down.
    Relay(Store& store, std::string visitorAddress, StatusChanged statusChanged);
    ~Relay();

    /// Listens; the host key is kept in `keyFile`, mode 0600, and made when it is not there.
    bool Start(const std::string& address, int port, const std::string& keyFile,
               std::string& error);
    /// Ends every session.
    void Stop();
    int Port() const { return acceptor_.Port(); }

    /// Whether that port is open for visitors at the moment. Takes no lock.
    bool IsUp(int port) const { return up_[static_cast<std::uint16_t>(port)]; }
    /// Ends the sessions of these tunnels and closes their ports before it returns.
    void Close(const std::vector<TunnelKey>& gone);

private:
    /// A tunnel that a session has logged in for.
    struct Seat {
        RelaySession* session = nullptr;
        TunnelRecord tunnel;
        std::shared_ptr<RelayPort> port; ///< null until the session asked for it
    };

    /// A session that has not logged in.
    struct Stranger {
        RelaySession* session;
        std::uint64_t network; ///< where it comes from
    };

    using Seats = std::map<std::string, Seat>; ///< by user

    bool LogIn(RelaySession* session, const std::string& user,
               const std::string& password) override;
    std::shared_ptr<RelayPort> OpenPort(RelaySession* session, int port) override;

    bool UseHostKey(const std::string& keyFile, std::string& error);
    bool MayAdmit();
    bool Admit(int connection);
    void Serve(UniqueFd fd, Waker waker);
    /// Ends one when there are too many. To be called with the lock, as is the next.
    void DropStranger();
    void ForgetStranger(const RelaySession* session);
    void Leave(RelaySession* session);
    Seats::iterator SeatOf(const RelaySession* session);
    /// Closes the seat's port. Returns the tunnel that went down; its device is 0 if none did.
    TunnelStatus ClosePort(Seat& seat);

    Store& store_;
    const std::string visitorAddress_;
    const StatusChanged statusChanged_;
    const std::unique_ptr<ssh_bind_struct, void (*)(ssh_bind)> bind_;
    std::vector<std::atomic<bool>> up_; ///< by port
    LogQuota refusals_;
    LogQuota closedPorts_{Level::Error};

    std::mutex mutex_; ///< guards the following; taken before the store's, never after
    bool stopping_ = false;
    Seats seats_;
    std::list<Stranger> strangers_;     ///< oldest first
    std::list<RelaySession*> sessions_; ///< all of them

    ThreadSet threads_;
    std::optional<Waker> spare_; ///< for the next session; the acceptor's thread alone uses it
    ThreadAcceptor acceptor_;
};

} // namespace ZARO::RelayHub
