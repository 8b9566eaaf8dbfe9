#include "app/daemon/session.h"

#include <algorithm>

namespace ZARO::Relay::app {

namespace {

constexpr std::size_t kLongestSession = 4096; // as much as any server takes in one header

/// The "name=value" of a cookie line; empty for one that is left out.
std::string CookieOf(const std::string& line, bool open) {
    std::string fields[7];
    std::size_t at = 0;
    for (std::string& field : fields) {
        const std::size_t end = std::min(line.find('\t', at), line.size());
        field = line.substr(std::min(at, line.size()), end - std::min(at, line.size()));
        at = end + 1;
    }
    const std::string cookie = fields[5] + "=" + fields[6];
    const bool clean = std::none_of(cookie.begin(), cookie.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte <= ' ' || byte == ';' || byte == ',' || byte >= 0x7f;
    });
    const bool named = !fields[5].empty() && fields[5].find('=') == std::string::npos;
    const bool secret = fields[3] == "TRUE";
    return !named || !clean || (secret && open) ? "" : cookie;
}

} // namespace

std::string SessionOf(const std::list<std::string>& lines, bool open) {
    std::string session;
    for (const std::string& line : lines) {
        const std::string cookie = CookieOf(line, open);
        if (!cookie.empty() && session.size() + cookie.size() < kLongestSession) {
            session += (session.empty() ? "" : "; ") + cookie;
        }
    }
    return session;
}

boost::shared_ptr<Request> Session::ControlRequest(const std::string& url,
                                                   const Json::Value& body) {
    auto request = Make(url, body, true);
    controlStore_ = Request::_share != nullptr ? store_ : 0;
    return request;
}

boost::shared_ptr<Request> Session::WaitRequest(const std::string& url, const Json::Value& body,
                                                bool sameHost) const {
    return Make(url, body, sameHost);
}

boost::shared_ptr<Request> Session::Make(const std::string& url, const Json::Value& body,
                                         bool sameHost) const {
    // The process-wide cookie would go to every server, so it is set for this request alone.
    Request::SetCookie(sameHost && sessionStore_ == store_ ? "" : cookies_);
    boost::shared_ptr<Request> request(new Request(url, body, true));
    Request::SetCookie("");
    return request;
}

void Session::Begin(Request& request, bool open) {
    std::list<std::string> lines;
    (void)request.GetCookies(lines); // without any there is no session
    cookies_ = SessionOf(lines, open);
    sessionStore_ = controlStore_; // a former store, if it was dropped since the request was made
}

void Session::DropNames() {
    Request::CleanDnsCache();
    ++store_;
}

} // namespace ZARO::Relay::app
