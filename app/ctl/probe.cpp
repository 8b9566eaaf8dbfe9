#include "app/ctl/probe.h"

#include <curl/curl.h>

#include <cstring>
#include <memory>

namespace ZARO::Relay::ctl {

namespace {

using app::Clock;
using app::milliseconds;

/// One connection and its handle. Must not be moved, since libcurl keeps pointers to it.
class Connection {
public:
    Connection(ServerProbe& probe, CURLM* multi, milliseconds patience)
        : probe_(probe), multi_(multi), handle_(curl_easy_init()) {
        if (handle_ == nullptr || !Set(patience) ||
            curl_multi_add_handle(multi_, handle_) != CURLM_OK) {
            probe_.fault = "out of resources";
        }
    }

    ~Connection() {
        (void)curl_multi_remove_handle(multi_, handle_); // harmless when it was not added
        curl_easy_cleanup(handle_);
    }

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool Owns(const CURL* handle) const { return handle_ == handle; }

    void Done(CURLcode result) {
        ended_ = true;
        const char* address = nullptr;
        if (curl_easy_getinfo(handle_, CURLINFO_PRIMARY_IP, &address) == CURLE_OK &&
            address != nullptr) {
            probe_.address = address;
        }
        probe_.reached = Reached(result);
        long error = 0; // of the last attempt to connect
        (void)curl_easy_getinfo(handle_, CURLINFO_OS_ERRNO, &error);
        if (result == CURLE_COULDNT_CONNECT && error != 0) {
            probe_.fault = strerror(static_cast<int>(error));
        } else if (result != CURLE_OK) {
            probe_.fault = error_[0] != '\0' ? error_ : curl_easy_strerror(result);
        }
    }

    void GiveUp() {
        if (!ended_ && probe_.fault.empty()) {
            probe_.reached = Reached(CURLE_OPERATION_TIMEDOUT);
            probe_.fault = "no answer in time";
        }
    }

private:
    bool Set(milliseconds patience) {
        const auto set = [this](CURLoption option, auto value) {
            return curl_easy_setopt(handle_, option, value) == CURLE_OK;
        };
        return set(CURLOPT_URL, probe_.url.c_str()) && set(CURLOPT_CONNECT_ONLY, 1L) &&
               set(CURLOPT_PROTOCOLS_STR, "http,https") && set(CURLOPT_SSL_VERIFYPEER, 0L) &&
               set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(patience.count())) &&
               // A name lookup that hangs must not delay the end.
               set(CURLOPT_QUICK_EXIT, 1L) && set(CURLOPT_NOSIGNAL, 1L) &&
               set(CURLOPT_SSL_CTX_FUNCTION, &Connection::OnTls) &&
               set(CURLOPT_SSL_CTX_DATA, this) && set(CURLOPT_ERRORBUFFER, error_) &&
               (!probe_.direct || set(CURLOPT_PROXY, ""));
    }

    /// libcurl calls this when TLS begins, so the connection is there. It keeps no time for that.
    static CURLcode OnTls(CURL*, void*, void* self) noexcept {
        static_cast<Connection*>(self)->connected_ = true;
        return CURLE_OK;
    }

    Stage Reached(CURLcode result) const {
        curl_off_t named = 0;
        (void)curl_easy_getinfo(handle_, CURLINFO_NAMELOOKUP_TIME_T, &named);
        if (result == CURLE_OK) {
            return Stage::Secured;
        }
        if (connected_) {
            return Stage::Connected;
        }
        return named > 0 ? Stage::Name : Stage::Nothing;
    }

    ServerProbe& probe_;
    CURLM* multi_;
    CURL* handle_;
    char error_[CURL_ERROR_SIZE] = "";
    bool connected_ = false;
    bool ended_ = false;
};

void TakeResults(CURLM* multi, std::vector<std::unique_ptr<Connection>>& connections) {
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi, &left)) {
        for (const auto& connection : connections) {
            if (message->msg == CURLMSG_DONE && connection->Owns(message->easy_handle)) {
                connection->Done(message->data.result);
            }
        }
    }
}

} // namespace

void RunProbes(std::vector<ServerProbe>& probes, milliseconds patience) {
    const std::unique_ptr<CURLM, CURLMcode (*)(CURLM*)> multi(curl_multi_init(),
                                                              curl_multi_cleanup);
    std::vector<std::unique_ptr<Connection>> connections;
    for (ServerProbe& probe : probes) {
        if (probe.url.empty()) {
            continue;
        }
        connections.push_back(std::make_unique<Connection>(probe, multi.get(), patience));
    }
    const auto deadline = Clock::now() + patience;
    int running = 0;
    for (;;) {
        const bool works = curl_multi_perform(multi.get(), &running) == CURLM_OK;
        TakeResults(multi.get(), connections);
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
        if (!works || running == 0 || left <= milliseconds(0)) {
            break;
        }
        (void)curl_multi_poll(multi.get(), nullptr, 0, static_cast<int>(left.count()), nullptr);
    }
    for (const auto& connection : connections) {
        connection->GiveUp();
    }
}

} // namespace ZARO::Relay::ctl
