#include <zarorelayd/request.h>

#include <cstring>
#include <list>
#include <memory>
#include <utility>

#include <zarorelayd/daemon.h>

#include "base/json.h"
#include "base/log.h"
#include "transport/request_buffers.h"
#include "transport/set_option.h"

namespace ZARO::Relay {

namespace {

/// In bytes. Our servers send less; a hostile one must not fill the appliance's memory, and parsed
/// JSON takes some fifty times its text.
constexpr std::size_t kLargestResponse = std::size_t{1} << 20;

} // namespace

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

// Self-assignment duplicates the request's own handle, as it would any other.
// NOLINTNEXTLINE(bugprone-unhandled-self-assignment)
Request& Request::operator=(const Request& other) {
    auto fresh = std::make_unique<Buffers>();
    fresh->data = other.buffers_->data;
    memcpy(fresh->error, buffers_->error, sizeof fresh->error);
    // The old handle is not cleaned up, on purpose: it may still be in a multi handle. Nobody says
    // when its owner has finished with it, so what it points to is never freed.
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

/// Releases the handle. False, so that a failing caller can return the result.
bool Request::Release() {
    if (handle_ != nullptr) {
        curl_easy_cleanup(handle_);
        handle_ = nullptr;
    }
    return false;
}

/// Duplicates another request's handle. The duplicate points into the other's memory and has no
/// share, so these are set again.
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
    // Set together: without the callback libcurl takes the string for a FILE.
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
