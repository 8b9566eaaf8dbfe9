/// The protocol with the alias server.
#pragma once

#include <boost/shared_ptr.hpp>
#include <json/value.h>

#include <cstdint>
#include <string>

#include <zarorelayd/export.h>
#include <zarorelayd/request.h>

namespace ZARO::Relay {

/// Outcome of an alias exchange. 0 ends the table and is no result.
enum ALIAS_RET : std::int32_t {
    ALIAS_RET_SUCCESS = 1,
    ALIAS_RET_NOT_FOUND = 2,
    ALIAS_RET_INUSED = 3,
    ALIAS_RET_SYSTEM = 4,
    ALIAS_RET_BAD_PARAM = 5,
    ALIAS_RET_NETWORK = 6,
    ALIAS_RET_DNS = 7,
    ALIAS_RET_AUTH = 8,
    ALIAS_RET_911 = 9,
    ALIAS_RET_SERVER_BUSY = 10,
    ALIAS_RET_BAD_IP = 11,
    ALIAS_RET_UNKNOWN = 12,
};

/// How to go on after an outcome.
enum ALIAS_RETRY_TYPE : std::int32_t {
    ALIAS_RETRY_PATH = 1,    ///< the path to the server is at fault: try again soon
    ALIAS_RETRY_NORMAL = 2,  ///< go on with the next round
    ALIAS_RETRY_REFUSED = 3, ///< refused: wait until the settings change
};

enum ALIAS_REQUEST_CMD : int {
    ALIAS_REQUEST_NONE = 0,
    ALIAS_REQUEST_MAP = 1,
    ALIAS_REQUEST_DELETE = 2,
    ALIAS_REQUEST_KEEP_ALIVE = 3,
    ALIAS_REQUEST_QUERY = 4,
    ALIAS_REQUEST_UNSPECIFIED = 5,
};

enum ALIAS_RESPONSE_TYPE : int {
    ALIAS_RESPONSE_JSON = 1,
    ALIAS_RESPONSE_TEXT = 2,
    ALIAS_RESPONSE_NONE = 3, ///< no usable reply
};

/// What is known of one outcome.
struct ZARORELAYD_API RetMapper {
    std::int32_t ret;       ///< an ALIAS_RET
    std::int32_t retryType; ///< an ALIAS_RETRY_TYPE
    std::string text;       ///< its name; empty in the last row
    std::string reply;      ///< the word the server sends for it; empty: it sends none
};

/// Every outcome. A row without a text ends the table.
extern ZARORELAYD_API const RetMapper gRetMapper[13];

/// A finished HTTP exchange.
struct HTTPResponse {
    std::int32_t status;     ///< HTTP status
    std::string body;        ///< the reply's body
    std::int32_t curlResult; ///< libcurl's result code; 0: no error
};

/// Builds one command for the alias server and reads the reply. Sent at once with Send, or through
/// the job queue with GetSharedRequest and, in the callback, GetResponseForDaemon. One thread.
class ZARORELAYD_API AliasRequest {
public:
    AliasRequest();
    ~AliasRequest();

    /// Builds the command. `data` needs "alias", "serial", "token", "url" and "id", each a
    /// non-empty string. False, logged, when one is missing or no command is given.
    bool SetRequest(ALIAS_REQUEST_CMD cmd, const Json::Value& data);
    /// False, logged, unless `data` holds all that SetRequest needs.
    bool IsDataValid(const Json::Value& data) const;

    /// Appends "name=value" pairs joined by "&" to `out`, in the order of the names. Nothing is
    /// escaped; objects and arrays go out empty.
    static void ToPostRequest(const Json::Value& fields, std::string& out);

    /// What is to be sent, and where. False when no request has been set.
    bool GetRequest(Json::Value& fields, std::string& url) const;
    bool GetRequest(std::string& postData, std::string& url) const;

    /// A fresh request of the same content for the job queue; an invalid one when none was set.
    boost::shared_ptr<Request> GetSharedRequest() const;

    /// Sends and blocks until the reply is in (20 s at most). True when `ret` tells the outcome,
    /// also of a failed transfer; false when no request has been set or the reply is a word that
    /// the table does not know.
    bool Send(ALIAS_RET& ret, ALIAS_RESPONSE_TYPE& type);
    bool Send(ALIAS_RET& ret);

    /// What Send does with a finished exchange.
    bool TakeReply(HTTPResponse& r, ALIAS_RET& ret, ALIAS_RESPONSE_TYPE& type);

    /// Results of the last Send: HTTP status (-1: none), body, and the JSON object if it was one.
    void GetResponse(int& httpStatus) const;
    void GetResponse(std::string& text) const;
    void GetResponse(Json::Value& json) const;

    /// Outcome of a request that the job queue has finished; `extra` is what the server said behind
    /// the word, untouched when it said nothing. False, logged, for an unknown word. An empty
    /// pointer is asserted against.
    static bool GetResponseForDaemon(boost::shared_ptr<Request> req, ALIAS_RET& ret,
                                     std::string& extra);
    static bool GetResponseForDaemon(HTTPResponse& r, ALIAS_RET& ret, std::string& extra);
    /// The alias that a request was about. False, logged, when it has none.
    static bool GetAliasName(boost::shared_ptr<Request> req, std::string& alias);

    /// Finds the outcome for a reply "word" or "word:extra". False, `ret` untouched, for others.
    static bool ParseServerResponse(const std::string& body, ALIAS_RET& ret);

    /// Checks a finished exchange: true with the trimmed body for status 200; else false, logged,
    /// with ALIAS_RET_UNKNOWN.
    static bool ParseCURLHttp(HTTPResponse& r, ALIAS_RET& ret, std::string& body, int& httpStatus);
    bool ParseCURLHttp(ALIAS_RET& ret, std::string& body, int& httpStatus);
    static bool ParseCURLHttp(boost::shared_ptr<Request> req, ALIAS_RET& ret, std::string& body);

    /// Look-ups in the table. False, the output untouched, for a code that is not in it.
    static bool ResponseToString(ALIAS_RET ret, std::string& text);
    static bool GetRetryType(ALIAS_RET ret, ALIAS_RETRY_TYPE& type);

    /// Drops blanks and control characters at both ends, and all from the first zero byte on.
    static void Trim(std::string& s);

private:
    int httpStatus_;
    std::string url_;
    std::string postData_;
    std::string responseText_;
    Json::Value responseJson_;
    Json::Value requestJson_;
    Request request_;
};

} // namespace ZARO::Relay
