/// One HTTP(S) exchange.
#pragma once

#include <boost/shared_ptr.hpp>
#include <curl/curl.h>
#include <json/value.h>

#include <list>
#include <memory>
#include <string>

#include <zarorelayd/export.h>
#include <zarorelayd/result.h>

namespace ZARO::Relay {

/// A request over one libcurl easy handle, sent at once with Send or as a job of a JobQueue. One
/// thread. All requests of the process share cookies and resolved names.
class ZARORELAYD_API Request {
public:
    /// Sets up the request unless `url` is null; ask IsValid() for the outcome.
    Request(const char* url, const char* data, bool post);
    /// The same with a JSON body.
    Request(const std::string& url, const Json::Value& data, bool post);
    /// A request of its own for the same URL and data, not yet sent and without cookies. Nothing in
    /// it points into the original.
    Request(const Request& other);
    /// The same, but cookies and error text stay. The handle held so far is not cleaned up, since
    /// it may still be in a multi handle: it stays usable for as long as the process lives,
    /// together with all that it points to, and is the caller's to clean up.
    Request& operator=(const Request& other);
    ~Request();

    /// Whether this is the request's easy handle.
    bool operator==(const void* handle) const;
    bool operator!=(const void* handle) const;

    /// Whether it has an easy handle and a URL.
    bool IsValid() const;

    /// Sets everything up anew: 20 s for the whole transfer, certificates not verified, the
    /// process-wide cookie. `post`: `data` is the body (none: a GET), else it is the query behind
    /// "?". False, logged, on failure; the request is then invalid. An empty URL changes nothing.
    bool Set(const std::string& url, const std::string& data, bool post);
    bool Set(const std::string& url, const Json::Value& data, bool post);

    /// Replaces the data of a valid request. False, logged, on failure.
    bool SetData(const std::string& data, bool post);
    bool SetData(const Json::Value& data, bool post);

    /// For a long poll: TCP keep-alive probes every `seconds`, no limit on the transfer's time, so
    /// that a Send may block for ever and whoever queues it has to watch the time.
    /// Call it after Set. True in every case; faults are logged.
    bool SetTcpKeepAlive(int seconds);

    /// Forgets the last result. False, logged and the handle gone, when libcurl refuses.
    bool InitSend();

    /// Sends and blocks until the reply is in: 20 s at most, without limit after SetTcpKeepAlive.
    /// True for status 200. False at once, and nothing touched, for a request that is invalid or in
    /// a multi handle.
    bool Send();

    /// For the job queue: adds the handle to a multi handle; removes and releases it, after which
    /// the request must be Set again; takes over a finished transfer's result.
    bool JobAdd(void* multi);
    bool JobRemove(void* multi);
    bool JobDone(CURLcode result);

    /// Status of the last transfer; -1 when there is none. Asked for the first time after a
    /// transfer, it collects the cookies of the URL's host; of more than 256 the oldest go.
    long GetHttpStatus();

    /// The outcome as a result code. The bare value 2, without a name, stands for transfer faults
    /// that are none of the network's.
    RELAYD_RET GetError() const;

    /// The reply's body; empty unless the status was 200.
    std::string GetResponse() const;
    /// False, logged, when it does not parse; false when the status was not 200.
    bool GetResponse(Json::Value& out) const;
    /// The data as JSON. False, logged, when it does not parse.
    bool GetData(Json::Value& out) const;
    const std::string& GetUrl() const;
    const std::string& GetData() const;
    CURLcode GetCurlResult() const;

    /// The cookies that replies set for the request's host, in Netscape form. False, `out`
    /// untouched, when there are none.
    bool GetCookies(std::list<std::string>& out);

    /// For debug dumps: URL, data, mode, and the result when done. Holds what the data holds.
    bool Write(Json::Value& out) const;

    /// The handle that all requests share for cookies and resolved names; null when libcurl can't
    /// make one. `reset` makes a new one: cookies and names are forgotten, and the next request
    /// that is set up does not leave its connection for reuse.
    static CURLSH* GetCurlShare(bool reset);

    /// Forgets resolved names (and cookies). Requests set up before are to be Set again. True.
    static bool CleanDnsCache();

    /// "name=value" text sent with every request that is set up from now on. True.
    static std::string& GetCookie();
    static bool SetCookie(const std::string& cookie);

    static CURLSH* _share;
    static std::string _strCookie;
    static bool blForbidConnReuse;

private:
    bool Release();
    bool SetShare();
    bool SetTransferOptions();
    bool SetReplyOptions();
    bool SetTlsOptions();
    bool SetCookieOption();
    bool SaveCookies();
    void CopyHandle(CURL* handle, bool hasBody);
    void LeaveMulti() { inMulti_ = false; }
    RELAYD_RET CurlError() const;

    static std::size_t OnData(char* data, std::size_t size, std::size_t count,
                              void* response) noexcept;

    friend class JobQueue; ///< tells its requests when its multi handle goes

    struct Buffers;

    std::list<std::string> cookies_;
    std::string url_;
    std::unique_ptr<Buffers> buffers_; ///< what the handle points to
    CURL* handle_;
    CURLcode curlResult_;
    bool inMulti_;
    bool done_;
    long status_;
    bool hasBody_; ///< libcurl points at the data as the body
};

} // namespace ZARO::Relay
