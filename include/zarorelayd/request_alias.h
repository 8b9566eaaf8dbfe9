/// The protocol with the alias server.
#pragma once

#include <boost/shared_ptr.hpp>
#include <json/value.h>

#include <cstdint>
#include <string>

#include <zarorelayd/export.h>
#include <zarorelayd/request.h>

namespace ZARO::Relay {

/// Outcome of an alias exchange; gRetMapper tells more of each. 0 is no outcome.
enum ALIAS_RET : std::int32_t {
    ALIAS_RET_SUCCESS = 1,
    ALIAS_RET_NOT_FOUND = 2,    ///< the server does not know the alias
    ALIAS_RET_INUSED = 3,       ///< another device has the alias
    ALIAS_RET_SYSTEM = 4,       ///< the server's system is at fault
    ALIAS_RET_BAD_PARAM = 5,    ///< the server could not use a field
    ALIAS_RET_NETWORK = 6,      ///< no connection to the server; for callers of this class
    ALIAS_RET_DNS = 7,          ///< no address for the server's name; for callers of this class
    ALIAS_RET_AUTH = 8,         ///< wrong credentials
    ALIAS_RET_911 = 9,          ///< the server failed
    ALIAS_RET_SERVER_BUSY = 10, ///< no useful reply for now; for callers of this class
    ALIAS_RET_BAD_IP = 11,      ///< the server refuses the device's address
    ALIAS_RET_UNKNOWN = 12,     ///< a failed transfer, or a status other than 200
};

/// How to go on after an outcome.
enum ALIAS_RETRY_TYPE : std::int32_t {
    ALIAS_RETRY_PATH = 1,    ///< the path to the server is at fault: retry soon
    ALIAS_RETRY_NORMAL = 2,  ///< go on with the next round
    ALIAS_RETRY_REFUSED = 3, ///< refused: wait until the settings change
};

/// What to ask the alias server for.
enum ALIAS_REQUEST_CMD : int {
    ALIAS_REQUEST_NONE = 0,        ///< nothing: SetRequest takes it, GetRequest is then false
    ALIAS_REQUEST_MAP = 1,         ///< give the alias to this device
    ALIAS_REQUEST_DELETE = 2,      ///< free the alias
    ALIAS_REQUEST_KEEP_ALIVE = 3,  ///< renew the alias
    ALIAS_REQUEST_QUERY = 4,       ///< where the alias leads
    ALIAS_REQUEST_UNSPECIFIED = 5, ///< refused by SetRequest
};

/// The form of a reply.
enum ALIAS_RESPONSE_TYPE : int {
    ALIAS_RESPONSE_JSON = 1, ///< a JSON object
    ALIAS_RESPONSE_TEXT = 2, ///< anything else with status 200
    ALIAS_RESPONSE_NONE = 3, ///< no usable reply
};

/// What is known of one outcome.
struct ZARORELAYD_API RetMapper {
    std::int32_t ret;       ///< an ALIAS_RET
    std::int32_t retryType; ///< an ALIAS_RETRY_TYPE
    std::string text;       ///< its name; empty in the last row
    std::string reply;      ///< the word the server sends for it; empty: it sends none
};

/// Every outcome, one row each. A last row without a text ends the table.
extern ZARORELAYD_API const RetMapper gRetMapper[13];

/// A finished HTTP exchange.
struct HTTPResponse {
    std::int32_t status;     ///< HTTP status; -1: none
    std::string body;        ///< the reply's body
    std::int32_t curlResult; ///< libcurl's result code; 0: no error
};

/// Builds one command for the alias server and reads the reply. Sent at once with Send, or through
/// the job queue with GetSharedRequest and, in the callback, GetResponseForDaemon. For one thread;
/// only Send blocks.
class ZARORELAYD_API AliasRequest {
public:
    /// No request set.
    AliasRequest();
    ~AliasRequest();

    /// Builds the command from `data`, which needs "alias", "serial", "token", "url" and "id", each
    /// a non-empty text. False, logged, when one is missing, or for ALIAS_REQUEST_UNSPECIFIED. A
    /// request that libcurl can't set up shows in Send.
    bool SetRequest(ALIAS_REQUEST_CMD cmd, const Json::Value& data);
    /// False, logged, unless `data` holds all that SetRequest needs.
    bool IsDataValid(const Json::Value& data) const;

    /// Appends "name=value" pairs joined by "&" to `out`, in the order of the names. Nothing is
    /// escaped; the value of an object or array is left empty.
    static void ToPostRequest(const Json::Value& fields, std::string& out);

    /// What is to be sent, and where. False, outputs untouched, when no command has been set.
    bool GetRequest(Json::Value& fields, std::string& url) const;
    /// The same with the fields appended to `postData` as by ToPostRequest.
    bool GetRequest(std::string& postData, std::string& url) const;

    /// A new request with the same content for the job queue, never null; an invalid one when no
    /// request has been set.
    boost::shared_ptr<Request> GetSharedRequest() const;

    /// Sends and blocks until the reply is in, 20 s at most. True when `ret` tells the outcome,
    /// also of a failed transfer. False, `ret` untouched, when no request has been set (logged) or
    /// the reply is a word that the table does not have.
    bool Send(ALIAS_RET& ret, ALIAS_RESPONSE_TYPE& type);
    bool Send(ALIAS_RET& ret);

    /// What Send does with a finished exchange. Trims the body of `r`.
    bool TakeReply(HTTPResponse& r, ALIAS_RET& ret, ALIAS_RESPONSE_TYPE& type);

    // Results of Send.

    /// HTTP status of the last one; -1: none.
    void GetResponse(int& httpStatus) const;
    /// Body of the last reply with status 200, trimmed.
    void GetResponse(std::string& text) const;
    /// The last reply that was a JSON object; null before.
    void GetResponse(Json::Value& json) const;

    /// Outcome of a request that the job queue has finished; `extra` is the text behind the word,
    /// untouched if the reply is only the word. True also for a failed transfer. False, logged and
    /// the outputs untouched, for an unknown word. `req` must not be empty.
    static bool GetResponseForDaemon(boost::shared_ptr<Request> req, ALIAS_RET& ret,
                                     std::string& extra);
    /// The same for an exchange, whose body it trims.
    static bool GetResponseForDaemon(HTTPResponse& r, ALIAS_RET& ret, std::string& extra);
    /// The alias in a request's data. False, logged, if the data names no alias. `req` must not be
    /// empty.
    static bool GetAliasName(boost::shared_ptr<Request> req, std::string& alias);

    /// Finds the outcome for a reply "word" or "word:extra". False, `ret` untouched, for others.
    static bool ParseServerResponse(const std::string& body, ALIAS_RET& ret);

    /// Checks a finished exchange, whose body it trims. True, with that body, for status 200. Else
    /// false, logged, with ALIAS_RET_UNKNOWN. `httpStatus` stays untouched without a reply.
    static bool ParseCURLHttp(HTTPResponse& r, ALIAS_RET& ret, std::string& body, int& httpStatus);
    /// The same for the exchange of the last Send.
    bool ParseCURLHttp(ALIAS_RET& ret, std::string& body, int& httpStatus);
    /// The same for a finished request, which must not be empty.
    static bool ParseCURLHttp(boost::shared_ptr<Request> req, ALIAS_RET& ret, std::string& body);

    /// The name of an outcome. False, `text` untouched, for a code that the table does not have.
    static bool ResponseToString(ALIAS_RET ret, std::string& text);
    /// How to go on after an outcome. False, `type` untouched, for a code that it does not have.
    static bool GetRetryType(ALIAS_RET ret, ALIAS_RETRY_TYPE& type);

    /// Drops blanks and control characters at both ends, and everything from the first zero byte.
    static void Trim(std::string& s);

private:
    int httpStatus_; ///< of the last Send; -1: none
    std::string url_;
    std::string postData_;
    std::string responseText_;
    Json::Value responseJson_;
    Json::Value requestJson_;
    Request request_;
};

} // namespace ZARO::Relay
