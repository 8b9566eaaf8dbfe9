#include <zarorelayd/daemon.h>
#include <zarorelayd/request.h>

#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <utility>

#include "base/json.h"
#include "base/log.h"
#include "transport/set_option.h"

namespace ZARO::Relay {

namespace {

constexpr const char* kUserAgent = "Zarolan Relayd 1.0-3211";
constexpr long kConnectTimeoutSeconds = 60;
constexpr long kTransferTimeoutSeconds = 20;
constexpr long kForever = -1;
constexpr std::size_t kHostText = 128; // bytes
/// Per host; libcurl sends 150 at most. A server must not fill the memory with more and more.
constexpr std::size_t kMostCookies = 256;
/// No server of ours sends as much, and a hostile one must not fill the memory of the appliance:
/// parsed JSON takes some fifty times its text.
constexpr std::size_t kLargestResponse = std::size_t{1} << 20;

int AcceptCertificate(int, X509_STORE_CTX*) noexcept {
    return 1;
}

/// Servers are not authenticated by their certificates. This is deliberate: relays and control
/// servers are replaced over the years in which an appliance is in use.
CURLcode OnSslContext(CURL*, void* context, void*) noexcept {
    SSL_CTX_set_verify(static_cast<SSL_CTX*>(context), SSL_VERIFY_FAIL_IF_NO_PEER_CERT,
                       AcceptCertificate);
    return CURLE_OK;
}

/// Sockets are not for the programs that the daemon starts.
curl_socket_t OpenSocket(void*, curlsocktype, curl_sockaddr* address) noexcept {
    return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

/// The host of a URL as libcurl's cookie lines begin with it.
std::string HostOf(const std::string& url) {
    const std::size_t slash = url.find('/');
    if (slash == std::string::npos || slash + 2 > url.size()) {
        return "";
    }
    std::string host = url.substr(slash + 2, kHostText - 1);
    const std::size_t colon = host.find(':');
    return host.substr(0, colon != std::string::npos ? colon : host.find('/'));
}

using Lines = std::list<std::string>;

/// Whose cookie a line of libcurl's list holds: its first field. Hosts are the same in any case.
std::string CookieHost(const std::string& line) {
    const std::string httpOnly = "#HttpOnly_";
    const std::size_t begin = line.rfind(httpOnly, 0) == 0 ? httpOnly.size() : 0;
    std::string host = line.substr(begin, line.find('\t') - begin);
    std::transform(host.begin(), host.end(), host.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return host[0] == '.' ? host.substr(1) : host;
}

/// Removes the oldest lines of each host that has too many. Whether there was one.
bool DropOldest(Lines& lines) {
    std::map<std::string, std::size_t> counts;
    for (const std::string& line : lines) {
        ++counts[CookieHost(line)];
    }
    const std::size_t before = lines.size();
    lines.remove_if([&](const std::string& line) {
        std::size_t& count = counts[CookieHost(line)];
        return count > kMostCookies && count-- > 0;
    });
    return lines.size() < before;
}

} // namespace

/// What libcurl is given pointers to. It belongs to one handle and goes, or stays, with it.
struct Request::Buffers {
    std::string data;
    std::string response;
    char error[CURL_ERROR_SIZE] = {};
};

Request::Request(const char* url, const char* data, bool post)
    : buffers_(std::make_unique<Buffers>()), handle_(nullptr), curlResult_(CURLE_OK),
      inMulti_(false), done_(false), status_(0), hasBody_(false) {
    if (url != nullptr) {
        Set(std::string(url), std::string(data != nullptr ? data : ""), post);
    }
}

Request::Request(const std::string& url, const Json::Value& data, bool post)
    : Request(nullptr, nullptr, post) {
    Set(url, data, post);
}

Request::Request(const Request& other) : Request(nullptr, nullptr, false) {
    url_ = other.url_;
    buffers_->data = other.buffers_->data;
    CopyHandle(other.handle_, other.hasBody_);
}

// Assigned to itself it has a duplicate of its own handle, as with any other.
// NOLINTNEXTLINE(bugprone-unhandled-self-assignment)
Request& Request::operator=(const Request& other) {
    auto fresh = std::make_unique<Buffers>();
    fresh->data = other.buffers_->data;
    memcpy(fresh->error, buffers_->error, sizeof fresh->error);
    // The handle held so far is not cleaned up here, on purpose: it may still be in a multi handle.
    // Nobody tells when its owner has done with it, so what it points to stays for ever.
    if (handle_ != nullptr) {
        static auto& left = *new std::list<std::unique_ptr<Buffers>>;
        left.push_back(std::move(buffers_));
    }
    buffers_ = std::move(fresh);
    url_ = other.url_;
    CopyHandle(other.handle_, other.hasBody_);
    return *this;
}

Request::~Request() {
    Release();
}

bool Request::operator==(const void* handle) const {
    return handle == handle_;
}

bool Request::operator!=(const void* handle) const {
    return !(*this == handle);
}

bool Request::IsValid() const {
    return handle_ != nullptr && !url_.empty();
}

/// Gives the handle back; false, so that a failure can end with it.
bool Request::Release() {
    if (handle_ != nullptr) {
        curl_easy_cleanup(handle_);
        handle_ = nullptr;
    }
    return false;
}

/// Takes a duplicate of another request's handle. It still points into that one's memory and has
/// lost the share, so each of these is set again.
void Request::CopyHandle(CURL* handle, bool hasBody) {
    handle_ = handle != nullptr ? curl_easy_duphandle(handle) : nullptr;
    hasBody_ = hasBody;
    inMulti_ = false;
    if (InitSend() && handle_ != nullptr) {
        const bool good =
            SetShare() && SET_OPTION(handle_, CURLOPT_ERRORBUFFER, buffers_->error) &&
            (!hasBody_ || SET_OPTION(handle_, CURLOPT_POSTFIELDS, buffers_->data.c_str()));
        if (!good) {
            Release();
        }
    }
}

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
        !SET_OPTION(handle_, CURLOPT_QUICK_EXIT, 1L) || // a removed job must not wait for a name
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

std::size_t Request::OnData(char* data, std::size_t size, std::size_t count,
                            void* response) noexcept {
    auto& text = *static_cast<std::string*>(response);
    const std::size_t bytes = size * count;
    if (bytes > kLargestResponse || text.size() + bytes > kLargestResponse) {
        return 0;
    }
    try {
        text.append(data, bytes);
    } catch (...) {
        return 0;
    }
    return bytes;
}

bool Request::InitSend() {
    status_ = 0;
    done_ = false;
    buffers_->response.clear();
    // The callback goes with the data: without it libcurl takes the string for a FILE.
    if (handle_ == nullptr || (SET_OPTION(handle_, CURLOPT_WRITEDATA, &buffers_->response) &&
                               SET_OPTION(handle_, CURLOPT_WRITEFUNCTION, &Request::OnData))) {
        return true;
    }
    return Release();
}

bool Request::Send() {
    if (!IsValid() || inMulti_ || !InitSend()) {
        return false;
    }
    curlResult_ = curl_easy_perform(handle_);
    if (curlResult_ != CURLE_OK) {
        RELAY_LOG(log::Error, "curl_easy_perform failed (%d): [%s]", static_cast<int>(curlResult_),
                  url_.c_str());
        return false;
    }
    done_ = true;
    status_ = GetHttpStatus();
    return status_ == 200;
}

bool Request::JobAdd(void* multi) {
    if (!IsValid() || multi == nullptr || !InitSend()) {
        return false;
    }
    if (curl_multi_add_handle(static_cast<CURLM*>(multi), handle_) != CURLM_OK) {
        RELAY_LOG(log::Error, "curl_multi_add_handle() failed");
        return false;
    }
    inMulti_ = true;
    return true;
}

bool Request::JobRemove(void* multi) {
    if (multi == nullptr) {
        return false;
    }
    if (curl_multi_remove_handle(static_cast<CURLM*>(multi), handle_) != CURLM_OK) {
        RELAY_LOG(log::Error, "curl_multi_remove_handle() failed");
        return false;
    }
    inMulti_ = false;
    Release();
    return true;
}

bool Request::JobDone(CURLcode result) {
    done_ = true;
    const long status = GetHttpStatus();
    curlResult_ = result;
    status_ = status;
    return true;
}

long Request::GetHttpStatus() {
    if (status_ != 0) {
        return status_;
    }
    if (!IsValid() || !done_) {
        return -1;
    }
    long code = 0;
    const CURLcode result = curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &code);
    if (result != CURLE_OK) {
        RELAY_LOG(log::Error, "Fail to get curl http info: %s", curl_easy_strerror(result));
        return -1;
    }
    (void)SaveCookies(); // logged; the reply counts without them
    return code;
}

bool Request::SaveCookies() {
    curl_slist* list = nullptr;
    const CURLcode result = curl_easy_getinfo(handle_, CURLINFO_COOKIELIST, &list);
    const std::unique_ptr<curl_slist, void (*)(curl_slist*)> owner(list, curl_slist_free_all);
    if (result != CURLE_OK) {
        RELAY_LOG(log::Error, "curl_easy_getinfo failed: %d", static_cast<int>(result));
        return false;
    }
    Lines all;
    const std::string host = HostOf(url_);
    for (; list != nullptr; list = list->next) {
        all.emplace_back(list->data);
        if (!host.empty() && all.back().rfind(host, 0) == 0) {
            cookies_.push_back(all.back());
        }
    }
    (void)DropOldest(cookies_);
    if (DropOldest(all)) {
        // The store that all requests share is filled again with the rest: libcurl does not take
        // every cookie's line for the order to forget that one.
        (void)SET_OPTION(handle_, CURLOPT_COOKIELIST, "ALL");
        for (const std::string& line : all) {
            (void)SET_OPTION(handle_, CURLOPT_COOKIELIST, line.c_str());
        }
    }
    return true;
}

RELAYD_RET Request::CurlError() const {
    RELAY_LOG(log::Notice, "%s", buffers_->error);
    switch (curlResult_) {
    case CURLE_COULDNT_RESOLVE_HOST:
        return RELAYD_RET_RESOLV;
    case CURLE_COULDNT_CONNECT:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_AGAIN:
        return RELAYD_RET_NETWORK;
    default:
        RELAY_LOG(log::Info, "curl error: %d", static_cast<int>(curlResult_));
        return static_cast<RELAYD_RET>(2); // reserved, without a name
    }
}

RELAYD_RET Request::GetError() const {
    if (curlResult_ != CURLE_OK) {
        return CurlError();
    }
    if (status_ == 200) {
        return RELAYD_RET_SUCCESS;
    }
    RELAY_LOG(log::Notice, "http status: %d", static_cast<int>(status_));
    if (status_ >= 400 && status_ <= 499) {
        return RELAYD_RET_NETWORK;
    }
    return status_ >= 500 && status_ <= 599 ? RELAYD_RET_SERVER_BUSY : RELAYD_RET_UNKNOWN;
}

std::string Request::GetResponse() const {
    return done_ && status_ == 200 ? buffers_->response : "";
}

bool Request::GetResponse(Json::Value& out) const {
    if (!done_ || status_ != 200) {
        return false;
    }
    if (!json::Parse(buffers_->response, out)) {
        RELAY_LOG(log::Debug, "failed to parse response: %s", buffers_->response.c_str());
        return false;
    }
    return true;
}

bool Request::GetData(Json::Value& out) const {
    if (!json::Parse(buffers_->data, out)) {
        RELAY_LOG(log::Debug, "failed to parse response: %s", buffers_->data.c_str());
        return false;
    }
    return true;
}

const std::string& Request::GetUrl() const {
    return url_;
}

const std::string& Request::GetData() const {
    return buffers_->data;
}

CURLcode Request::GetCurlResult() const {
    return curlResult_;
}

bool Request::GetCookies(std::list<std::string>& out) {
    if (cookies_.empty()) {
        return false;
    }
    out = cookies_;
    return true;
}

bool Request::Write(Json::Value& out) const {
    json::Object(out)["url"] = url_;
    out["data"] = buffers_->data;
    out["mode"] = inMulti_ ? "async" : "sync";
    if (done_) {
        out["http_status"] = static_cast<Json::Int>(status_);
        out["response"] = GetResponse();
    }
    return true;
}

} // namespace ZARO::Relay
