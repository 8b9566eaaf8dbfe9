/// One SSH session of a device: the log-in, the one forward it may have, and its visitors.
#pragma once

#include <atomic>
#include <chrono>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include <libssh/callbacks.h>
#include <libssh/libssh.h>
#include <libssh/server.h>

#include "hub/net.h"
#include "hub/relay_port.h"
#include "hub/relay_visitor.h"
#include "hub/store.h"
#include "hub/waker.h"

namespace ZARO::RelayHub {

class RelaySession;

/// What a session needs of the relay. Called on the session's thread.
class RelayDesk {
public:
    /// Whether `password` is that of the tunnel with this user. The tunnel then belongs to this
    /// session and its former session ends.
    virtual bool LogIn(RelaySession* session, const std::string& user,
                       const std::string& password) = 0;
    /// The tunnel's port, open from now on; null when `port` is not the one assigned to it.
    virtual std::shared_ptr<RelayPort> OpenPort(RelaySession* session, int port) = 0;

protected:
    ~RelayDesk() = default;
};

/// Lives on the thread that calls Run(); only End() may come from another one.
class RelaySession {
public:
    using Clock = std::chrono::steady_clock;

    /// `session` is a fresh server session on the socket `fd`, which it owns.
    RelaySession(RelayDesk& desk, ssh_session session, int fd, Waker waker);
    RelaySession(const RelaySession&) = delete;
    RelaySession& operator=(const RelaySession&) = delete;
    ~RelaySession();

    /// Serves the device until it leaves, is silent for too long or End() is called.
    void Run();
    /// Makes Run() return soon.
    void End() {
        ended_ = true;
        waker_.Wake();
    }
    bool IsEnded() const { return ended_; }
    /// The device's address.
    std::string Peer() const {
        int port = 0;
        return PeerOf(fd_, port);
    }

private:
    enum class State { KeyExchange, LogIn, LoggedIn, Serving, Over };

    static int OnPassword(ssh_session session, const char* user, const char* password, void* self);
    static void OnGlobalRequest(ssh_session session, ssh_message message, void* self);

    bool Prepare();
    void WaitForEvents();
    int TimeOut() const;
    void HandleSsh();
    bool IsWriting() const;
    bool IsListening() const;
    void HandleVisitors(bool heard);
    void AcceptVisitors();
    /// Ends the visitor that has been idle longest if there is no room for another.
    void MakeRoom();
    void KeepAlive();
    void Over(const char* why);
    bool CheckPassword(const char* user, const char* password);
    /// Opens the device's port. False when it is not the device's, or open already.
    bool Forward(ssh_message message);

    RelayDesk& desk_;
    const std::unique_ptr<ssh_session_struct, void (*)(ssh_session)> session_;
    const std::unique_ptr<ssh_event_struct, void (*)(ssh_event)> event_;
    const int fd_;
    Waker waker_;
    std::atomic<bool> ended_{false};
    ssh_server_callbacks_struct serverCallbacks_{};
    ssh_callbacks_struct callbacks_{};
    ssh_counter_struct traffic_{};
    std::uint64_t seenTraffic_ = 0; ///< bytes from the device that were handled

    State state_ = State::KeyExchange;
    bool inEvent_ = false; ///< event_ watches the session
    int tries_ = 0;
    Clock::time_point now_;      ///< read once per pass
    Clock::time_point deadline_; ///< by which it must be served
    Clock::time_point heard_;    ///< when the device last sent something
    Clock::time_point clear_;    ///< when the line to the device was last free of waiting data
    Clock::time_point probe_;    ///< when to send the next keep-alive
    Clock::time_point rest_;     ///< no visitor is accepted before this, after a shortage
    bool inShortage_ = false;

    std::shared_ptr<RelayPort> port_;
    std::string bindAddress_; ///< as the device sent it; every channel names it again
    int portNumber_ = 0;
    std::list<RelayVisitor> visitors_;
    std::vector<pollfd> polled_; ///< waker, SSH socket, port, then the visitors
    std::vector<char> buffer_;
};

} // namespace ZARO::RelayHub
