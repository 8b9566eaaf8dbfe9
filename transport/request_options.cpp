// What libcurl is told about a request.
#define RELAY_LOG_UNIT "request.cpp"
#include <zarorelayd/request.h>

#include <openssl/ssl.h>
#include <sys/socket.h>

#include <cstring>

#include <zarorelayd/daemon.h>

#include "base/json.h"
#include "base/log.h"
#include "transport/request_buffers.h"
#include "transport/set_option.h"

namespace ZARO::Relay {

namespace {

constexpr const char* kUserAgent = "Zarolan Relayd 1.0-3211";
constexpr long kConnectTimeoutSeconds = 60;
constexpr long kTransferTimeoutSeconds = 20;
constexpr long kForever = -1;

int AcceptCertificate(int, X509_STORE_CTX*) noexcept {
    return 1;
}

/// Servers are not authenticated by their certificates. This is deliberate: relays and control
/// servers are replaced during the years that an appliance is in use.
CURLcode OnSslContext(CURL*, void* context, void*) noexcept {
    SSL_CTX_set_verify(static_cast<SSL_CTX*>(context), SSL_VERIFY_FAIL_IF_NO_PEER_CERT,
                       AcceptCertificate);
    return CURLE_OK;
}

/// Keeps sockets from the programs that the daemon starts.
curl_socket_t OpenSocket(void*, curlsocktype, curl_sockaddr* address) noexcept {
    return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

} // namespace

bool Request::Set(const std::string& url, const std::string& data, bool post) {
    if (url.empty()) {
        return false;
    }
    url_ = url;
    if (handle_ == nullptr) {
        handle_ = curl_easy_init();
        if (handle_ == nullptr) {
            return false;
        }
    } else {
        (void)SET_OPTION(handle_, CURLOPT_COOKIEFILE, nullptr); // a reset would lose that list
        curl_easy_reset(handle_);
    }
    hasBody_ = false;
    if (GetCurlShare(false) == nullptr) {
        return false;
    }
    if (!SetShare()) {
        return Release();
    }
    if (!InitSend()) {
        RELAY_LOG(log::Error, "init send failed");
        return false;
    }
    if (!SET_OPTION(handle_, CURLOPT_URL, url_.c_str())) {
        return Release();
    }
    (void)SetData(data, post); // logged; the request is then sent without the data
    if (!SetTransferOptions() || !SetReplyOptions() || !SetTlsOptions() || !SetCookieOption()) {
        return Release();
    }
    return true;
}

bool Request::Set(const std::string& url, const Json::Value& data, bool post) {
    return Set(url, json::OneLine(data), post);
}

bool Request::SetShare() {
    // A share alone does not make libcurl store and send cookies; an empty cookie file does.
    return SET_OPTION(handle_, CURLOPT_SHARE, GetCurlShare(false)) &&
           SET_OPTION(handle_, CURLOPT_COOKIEFILE, "");
}

bool Request::SetTransferOptions() {
    if (!SET_OPTION(handle_, CURLOPT_USERAGENT, kUserAgent) ||
        !SET_OPTION(handle_, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds) ||
        !SET_OPTION(handle_, CURLOPT_TIMEOUT, kTransferTimeoutSeconds) ||
        !SET_OPTION(handle_, CURLOPT_DNS_CACHE_TIMEOUT, kForever) ||
        !SET_OPTION(handle_, CURLOPT_OPENSOCKETFUNCTION, OpenSocket) ||
        !SET_OPTION(handle_, CURLOPT_QUICK_EXIT, 1L) || // removal must not wait for a look-up
        // A request that replaces a hung one must not share its connection.
        !SET_OPTION(handle_, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1})) {
        return false;
    }
    if (blForbidConnReuse) {
        RELAY_LOG(log::Debug, "Forbid reuse conn");
        if (!SET_OPTION(handle_, CURLOPT_FORBID_REUSE, 1L)) {
            return false;
        }
        blForbidConnReuse = false;
    }
    return true;
}

bool Request::SetReplyOptions() {
    memset(buffers_->error, 0, sizeof buffers_->error);
    return SET_OPTION(handle_, CURLOPT_WRITEFUNCTION, &Request::OnData) &&
           SET_OPTION(handle_, CURLOPT_ERRORBUFFER, buffers_->error);
}

bool Request::SetTlsOptions() {
    if (url_.compare(0, 8, "https://") != 0) {
        return true;
    }
    return SET_OPTION(handle_, CURLOPT_SSL_CTX_FUNCTION, OnSslContext) &&
           SET_OPTION(handle_, CURLOPT_SSL_VERIFYPEER, 0L);
}

bool Request::SetCookieOption() {
    return _strCookie.empty() || SET_OPTION(handle_, CURLOPT_COOKIE, _strCookie.c_str());
}

bool Request::SetData(const std::string& data, bool post) {
    if (!IsValid()) {
        return false;
    }
    if (hasBody_) { // libcurl still points at the old body
        hasBody_ = false;
        (void)SET_OPTION(handle_, CURLOPT_POSTFIELDS, nullptr);
        (void)SET_OPTION(handle_, CURLOPT_HTTPGET, 1L);
    }
    buffers_->data = data;
    if (!post) {
        return SET_OPTION(handle_, CURLOPT_URL, (url_ + "?" + data).c_str());
    }
    if (!SET_OPTION(handle_, CURLOPT_URL, url_.c_str())) {
        return false;
    }
    if (buffers_->data.empty()) {
        return true;
    }
    hasBody_ = SET_OPTION(handle_, CURLOPT_POSTFIELDS, buffers_->data.c_str());
    return hasBody_;
}

bool Request::SetData(const Json::Value& data, bool post) {
    return SetData(json::OneLine(data), post);
}

bool Request::SetTcpKeepAlive(int seconds) {
    const long interval = seconds;
    // Failures are logged; the poll works without these, only less well.
    (void)SET_OPTION(handle_, CURLOPT_TCP_KEEPALIVE, 1L);
    if (SET_OPTION(handle_, CURLOPT_TCP_KEEPIDLE, interval)) {
        (void)SET_OPTION(handle_, CURLOPT_TCP_KEEPINTVL, interval);
        (void)SET_OPTION(handle_, CURLOPT_TIMEOUT, 0L);
    }
    return true;
}

} // namespace ZARO::Relay
