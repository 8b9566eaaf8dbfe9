/// The session with the control server, as its cookies carry it.
#pragma once

#include <json/value.h>

#include <list>
#include <string>

#include <zarorelayd/request.h>

namespace ZARO::Relay::app {

/// Makes the requests to the servers, so that each carries the session. The cookie store that all
/// requests share sends the session's cookies to the control server's host by itself. The cookies
/// are also kept here: for a wait-command server on another host, and for the time after the store
/// was dropped together with the resolved names.
class Session {
public:
    /// A request to the control server. Its reply may begin a session.
    boost::shared_ptr<Request> ControlRequest(const std::string& url, const Json::Value& body);
    /// A request to the wait-command server. `sameHost`: it is the control server's.
    boost::shared_ptr<Request> WaitRequest(const std::string& url, const Json::Value& body,
                                           bool sameHost) const;

    /// Keeps the cookies that the last control request brought. `open`: the wait-command server is
    /// reached over a connection that others can read.
    void Begin(Request& request, bool open);
    void End() { cookies_.clear(); }

    /// Forgets resolved names, and with them the shared store's cookies.
    void DropNames();

private:
    boost::shared_ptr<Request> Make(const std::string& url, const Json::Value& body,
                                    bool sameHost) const;

    std::string cookies_; ///< "name=value; ..."
    // The shared stores are numbered: a new one may lie at the address of a former one.
    unsigned long store_ = 1;        ///< the store in use
    unsigned long controlStore_ = 0; ///< that of the last control request; 0: it had none
    unsigned long sessionStore_ = 0; ///< the store that has the session's cookies
};

/// "name=value; name=value" of cookie lines in Netscape form, for a request to another host. Leaves
/// out what is no such line, cookies that would break the header and, when `open`, those that must
/// not go over an open connection; and what is beyond 4 KiB.
std::string SessionOf(const std::list<std::string>& lines, bool open);

} // namespace ZARO::Relay::app
