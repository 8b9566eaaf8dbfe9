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

/// A request over one libcurl easy handle, sent at once with Send or as a job of a JobQueue. For
/// one thread. Only Send blocks. All requests of the process share cookies and resolved names.
class ZARORELAYD_API Request {
public:
    /// Set(url, data, post) unless `url` is null; IsValid() tells the outcome. Null data: empty.
    Request(const char* url, const char* data, bool post);
    /// The same with JSON data on one line.
    Request(const std::string& url, const Json::Value& data, bool post);
    /// An independent request for the same URL and data, not yet sent and without the cookies that
    /// the original has collected.
    Request(const Request& other);
    /// The same, but keeps this request's own cookies and error text. Does not clean up the old
    /// handle, which may still be in a multi handle: it stays usable, with all that it points to,
    /// and the caller has to clean it up.
    Request& operator=(const Request& other);
    ~Request();

    /// Whether this is the request's easy handle.
    bool operator==(const void* handle) const;
    bool operator!=(const void* handle) const;

    /// Whether it has an easy handle and a URL, and so can be sent.
    bool IsValid() const;

    /// Sets everything up from scratch: 20 s for the whole transfer, certificates checked for their
    /// name only, the process-wide cookie. `post`: `data` is the body (empty: a GET); else it is
    /// the query behind "?". The texts are copied. False on failure: the request must not be sent
    /// then. An empty URL changes nothing, and false.
    bool Set(const std::string& url, const std::string& data, bool post);
    /// The same with the data as one line of JSON.
    bool Set(const std::string& url, const Json::Value& data, bool post);

    /// Replaces the data of a valid request, as in Set. False for an invalid one, and, logged, when
    /// libcurl refuses.
    bool SetData(const std::string& data, bool post);
    bool SetData(const Json::Value& data, bool post);

    /// For a long poll: TCP keep-alive probes every `seconds`, and no time limit on the transfer.
    /// Send may then block for ever, and whoever queues the request must watch the time. Call it
    /// after Set. True in every case; faults are logged.
    bool SetTcpKeepAlive(int seconds);

    /// Forgets the last status and reply. False, logged and the handle released, when libcurl
    /// refuses.
    bool InitSend();

    /// Sends and blocks until the reply is in: 20 s at most, without limit after SetTcpKeepAlive.
    /// True for status 200. False at once, nothing changed, for a request that is invalid or in a
    /// multi handle.
    bool Send();

    // The three steps of a job queue. `multi`: its CURLM*.

    /// Adds the handle to `multi`, which must exist until JobRemove. False, logged, when libcurl
    /// refuses; false for an invalid request or a null `multi`.
    bool JobAdd(void* multi);
    /// Takes the handle out of `multi` and releases it. The results stay, but the request must be
    /// Set before it is sent again. False, nothing changed, for null or, logged, when libcurl
    /// refuses.
    bool JobRemove(void* multi);
    /// Takes over `result`, HTTP status and cookies of a finished transfer. Call it before
    /// JobRemove. True.
    bool JobDone(CURLcode result);

    /// Status of the last transfer; -1: none. The first call after a transfer also collects the
    /// cookies of the URL's host and drops the oldest beyond 256 per host.
    long GetHttpStatus();

    /// The outcome of the last transfer, whose cause is logged. Success: status 200. Network: no
    /// connection, a lost one, a time-out, or status 4xx. Resolv: no address. Server busy: 5xx.
    /// Unknown: any other status. The bare value 2, without a name: any other transfer fault.
    RELAYD_RET GetError() const;

    /// The reply's body, 1 MiB at most; empty unless the status was 200.
    std::string GetResponse() const;
    /// The body as JSON. False, logged and `out` null, when it does not parse; false, `out`
    /// untouched, unless the status was 200.
    bool GetResponse(Json::Value& out) const;
    /// The data as JSON. False, logged and `out` null, when it does not parse.
    bool GetData(Json::Value& out) const;
    /// URL, without the query. Valid until the request is set, assigned or destroyed.
    const std::string& GetUrl() const;
    /// Data, as text. Valid until the request is set, assigned or destroyed.
    const std::string& GetData() const;
    /// libcurl's result of the last transfer; CURLE_OK before the first.
    CURLcode GetCurlResult() const;

    /// The cookies that replies set for the request's host, in Netscape form. False, `out`
    /// untouched, without any.
    bool GetCookies(std::list<std::string>& out);

    /// For debug dumps: URL, data, "async" while in a multi handle (else "sync"), and status and
    /// body when done. Credentials in the data are in the dump too. True.
    bool Write(Json::Value& out) const;

    /// The handle that all requests share for cookies and resolved names; this class owns it. Null,
    /// logged, when libcurl can't make one. `reset` replaces it: cookies and names are forgotten,
    /// and the next request that is set up does not leave its connection for reuse.
    static CURLSH* GetCurlShare(bool reset);

    /// Forgets resolved names and cookies and reads the resolver's configuration again. Requests
    /// that were set up before must be Set again. True.
    static bool CleanDnsCache();

    /// "name=value" text sent with every request that is set up from now on; empty: none.
    static std::string& GetCookie();
    /// Sets that text. True.
    static bool SetCookie(const std::string& cookie);

    static CURLSH* _share;         ///< null until the first request, and after a failure
    static std::string _strCookie; ///< see GetCookie
    static bool blForbidConnReuse; ///< the next Set forbids reuse and clears this

private:
    bool Release();
    bool SetShare();
    bool SetTransferOptions();
    bool SetReplyOptions();
    bool SetTlsOptions();
    bool SetCookieOption();
    bool SaveCookies();
    void CopyHandle(CURL* handle, bool hasBody);
    void LeaveMulti() { inMulti_ = false; } ///< for a queue whose multi handle is gone
    RELAYD_RET CurlError() const;

    static std::size_t OnData(char* data, std::size_t size, std::size_t count,
                              void* response) noexcept;

    friend class JobQueue; ///< calls LeaveMulti

    struct Buffers;

    std::list<std::string> cookies_;
    std::string url_;
    std::unique_ptr<Buffers> buffers_; ///< what the handle points to
    CURL* handle_;                     ///< null: invalid
    CURLcode curlResult_;
    bool inMulti_;
    bool done_;    ///< the last transfer has finished
    long status_;  ///< HTTP status; 0: none yet
    bool hasBody_; ///< libcurl points at the data as the body
};

} // namespace ZARO::Relay
