#include <zarorelayd/request_alias.h>

#include <syslog.h>

#include <algorithm>
#include <cstring>

#include <curl/curl.h>

#include <zarorelayd/daemon.h>

#include "base/json.h"
#include "base/log.h"

namespace ZARO::Relay {

// NOLINTNEXTLINE(cert-err58-cpp): a program that starts out of memory ends anyway
const RetMapper gRetMapper[13] = {
    {ALIAS_RET_SUCCESS, ALIAS_RETRY_NORMAL, "success", "good"},
    {ALIAS_RET_911, ALIAS_RETRY_NORMAL, "error_911", "911"},
    {ALIAS_RET_SYSTEM, ALIAS_RETRY_NORMAL, "error_system", "badsys"},
    {ALIAS_RET_NETWORK, ALIAS_RETRY_PATH, "error_network", ""},
    {ALIAS_RET_DNS, ALIAS_RETRY_PATH, "error_dns", ""},
    {ALIAS_RET_SERVER_BUSY, ALIAS_RETRY_PATH, "error_server_busy", ""},
    {ALIAS_RET_AUTH, ALIAS_RETRY_REFUSED, "error_auth", "badauth"},
    {ALIAS_RET_BAD_IP, ALIAS_RETRY_REFUSED, "error_bad_ip", "badip"},
    {ALIAS_RET_NOT_FOUND, ALIAS_RETRY_NORMAL, "error_not_found", "alias_not_found"},
    {ALIAS_RET_INUSED, ALIAS_RETRY_REFUSED, "error_inused", "alias_inused"},
    {ALIAS_RET_BAD_PARAM, ALIAS_RETRY_NORMAL, "error_bad_param", "badparam"},
    {ALIAS_RET_UNKNOWN, ALIAS_RETRY_NORMAL, "error_unknown", ""},
    {0, 0, "", ""},
};

namespace {

/// A command's page, its action and the members of the data that go with it.
struct Command {
    const char* page;
    const char* action;
    std::initializer_list<const char*> members;
};

const Command* FindCommand(ALIAS_REQUEST_CMD cmd) {
    static const Command kMap = {
        "alias_update.php", "map_alias", {"alias", "serial", "token", "id"}};
    static const Command kDelete = {
        "alias_update.php", "delete_alias", {"alias", "serial", "token", "id"}};
    static const Command kKeepAlive = {
        "alias_update.php", "keep_alive_alias", {"alias", "serial", "token", "id"}};
    static const Command kQuery = {"alias_query.php", "query_alias", {"alias"}};
    switch (cmd) {
    case ALIAS_REQUEST_MAP:
        return &kMap;
    case ALIAS_REQUEST_DELETE:
        return &kDelete;
    case ALIAS_REQUEST_KEEP_ALIVE:
        return &kKeepAlive;
    case ALIAS_REQUEST_QUERY:
        return &kQuery;
    case ALIAS_REQUEST_NONE:
    case ALIAS_REQUEST_UNSPECIFIED:
        break;
    }
    return nullptr;
}

template <typename Predicate> const RetMapper* FindRow(Predicate matches) {
    for (const RetMapper* row = gRetMapper; !row->text.empty(); ++row) {
        if (matches(*row)) {
            return row;
        }
    }
    return nullptr;
}

bool IsFilledText(const Json::Value& data, const char* key) {
    std::string text;
    return json::Get(data, key, text) && !text.empty();
}

HTTPResponse Finished(Request& request) {
    return {static_cast<int>(request.GetHttpStatus()), request.GetResponse(),
            request.GetCurlResult()};
}

} // namespace

AliasRequest::AliasRequest() : httpStatus_(-1), request_(nullptr, nullptr, true) {
}

AliasRequest::~AliasRequest() = default;

bool AliasRequest::IsDataValid(const Json::Value& data) const {
    if (!data.isObject()) {
        RELAY_LOG(log::Error, "data should be an object");
        return false;
    }
    const auto has = [&](const char* key) { return json::Find(data, key) != nullptr; };
    if (!has("alias")) {
        RELAY_LOG(log::Error, "alias name is not found");
    } else if (!has("serial")) {
        RELAY_LOG(log::Error, "serial is not found");
    } else if (!has("token")) {
        RELAY_LOG(log::Error, "token is not found");
    } else if (!has("url")) {
        RELAY_LOG(log::Error, "url is not found");
    } else if (!has("id")) {
        RELAY_LOG(log::Error, "farlink_id is not found");
    } else if (!IsFilledText(data, "alias")) {
        RELAY_LOG(log::Error, "alias name is not string or empty");
    } else if (!IsFilledText(data, "serial")) {
        RELAY_LOG(log::Error, "serial is not string or empty");
    } else if (!IsFilledText(data, "token")) {
        RELAY_LOG(log::Error, "token is not string or empty");
    } else if (!IsFilledText(data, "url")) {
        RELAY_LOG(log::Error, "url is not string or empty");
    } else if (!IsFilledText(data, "id")) {
        RELAY_LOG(log::Error, "id is not string or empty");
    } else {
        return true;
    }
    return false;
}

bool AliasRequest::SetRequest(ALIAS_REQUEST_CMD cmd, const Json::Value& data) {
    if (!IsDataValid(data)) {
        return false;
    }
    requestJson_ = Json::Value();
    if (cmd == ALIAS_REQUEST_UNSPECIFIED) {
        syslog(LOG_ERR, "not specify request");
        return false;
    }
    std::string page;
    if (const Command* command = FindCommand(cmd)) {
        page = command->page;
        requestJson_["action"] = command->action;
        for (const char* key : command->members) {
            std::string value;
            if (json::Get(data, key, value)) {
                requestJson_[key] = value;
            }
        }
    }
    postData_.clear();
    ToPostRequest(requestJson_, postData_);
    std::string base;
    json::Get(data, "url", base);
    url_ = base + "/" + page;
    (void)request_.Set(url_, postData_, true); // Send reports a request that can't be set up
    return true;
}

void AliasRequest::ToPostRequest(const Json::Value& fields, std::string& out) {
    if (!fields.isObject()) {
        return;
    }
    const char* separator = "";
    for (const std::string& name : fields.getMemberNames()) {
        const Json::Value& value = fields[name];
        const bool isText = !value.isObject() && !value.isArray();
        out += separator + name + "=" + (isText ? value.asString() : "");
        separator = "&";
    }
}

bool AliasRequest::GetRequest(Json::Value& fields, std::string& url) const {
    if (requestJson_.empty()) {
        return false;
    }
    url = url_;
    fields = requestJson_;
    return true;
}

bool AliasRequest::GetRequest(std::string& postData, std::string& url) const {
    if (requestJson_.empty()) {
        return false;
    }
    url = url_;
    ToPostRequest(requestJson_, postData);
    return true;
}

boost::shared_ptr<Request> AliasRequest::GetSharedRequest() const {
    return boost::shared_ptr<Request>(new Request(request_));
}

bool AliasRequest::Send(ALIAS_RET& ret, ALIAS_RESPONSE_TYPE& type) {
    if (!request_.IsValid()) {
        RELAY_LOG(log::Error, "No valid request found!! Please call SetRequest() first");
        return false;
    }
    (void)request_.Send(); // the outcome is read from the request below
    HTTPResponse reply = Finished(request_);
    return TakeReply(reply, ret, type);
}

bool AliasRequest::TakeReply(HTTPResponse& r, ALIAS_RET& ret, ALIAS_RESPONSE_TYPE& type) {
    type = ALIAS_RESPONSE_NONE;
    std::string body;
    int httpStatus = -1;
    const bool good = ParseCURLHttp(r, ret, body, httpStatus);
    httpStatus_ = httpStatus;
    if (!good) {
        return true;
    }
    type = ALIAS_RESPONSE_TEXT;
    responseText_ = body;
    Json::Value reply;
    if (json::Parse(body, reply) && reply.isObject()) {
        type = ALIAS_RESPONSE_JSON;
        responseJson_ = reply;
        ret = ALIAS_RET_SUCCESS;
        return true;
    }
    return ParseServerResponse(body, ret);
}

bool AliasRequest::Send(ALIAS_RET& ret) {
    ALIAS_RESPONSE_TYPE type = ALIAS_RESPONSE_NONE;
    return Send(ret, type);
}

void AliasRequest::GetResponse(int& httpStatus) const {
    httpStatus = httpStatus_;
}

void AliasRequest::GetResponse(std::string& text) const {
    text = responseText_;
}

void AliasRequest::GetResponse(Json::Value& json) const {
    json = responseJson_;
}

bool AliasRequest::GetResponseForDaemon(boost::shared_ptr<Request> req, ALIAS_RET& ret,
                                        std::string& extra) {
    HTTPResponse reply = Finished(*req);
    return GetResponseForDaemon(reply, ret, extra);
}

bool AliasRequest::GetResponseForDaemon(HTTPResponse& r, ALIAS_RET& ret, std::string& extra) {
    ALIAS_RET outcome = ALIAS_RET_SUCCESS;
    std::string body;
    int httpStatus = -1;
    if (!ParseCURLHttp(r, outcome, body, httpStatus)) {
        ret = outcome;
        return true;
    }
    if (!ParseServerResponse(body, outcome)) {
        RELAY_LOG(log::Error, "Unknown response: %s", body.c_str());
        return false;
    }
    const std::size_t colon = body.find(':');
    if (colon != std::string::npos) {
        extra = body.substr(colon + 1);
    }
    ret = outcome;
    return true;
}

bool AliasRequest::GetAliasName(boost::shared_ptr<Request> req, std::string& alias) {
    static const std::string kKey = "alias=";
    const std::string data = "&" + req->GetData();
    const std::size_t at = data.find("&" + kKey);
    if (at == std::string::npos) {
        RELAY_LOG(log::Error, "not found alias name from post data [%s]", req->GetData().c_str());
        return false;
    }
    const std::size_t begin = at + 1 + kKey.size();
    alias = data.substr(begin, data.find('&', begin) - begin);
    return true;
}

bool AliasRequest::ParseServerResponse(const std::string& body, ALIAS_RET& ret) {
    const RetMapper* row = FindRow([&](const RetMapper& entry) {
        const std::size_t length = entry.reply.size();
        return length != 0 && body.compare(0, length, entry.reply) == 0 &&
               (body.size() == length || body[length] == ':');
    });
    if (row == nullptr) {
        return false;
    }
    ret = static_cast<ALIAS_RET>(row->ret);
    return true;
}

bool AliasRequest::ParseCURLHttp(HTTPResponse& r, ALIAS_RET& ret, std::string& body,
                                 int& httpStatus) {
    if (r.curlResult != CURLE_OK) {
        RELAY_LOG(log::Error, "curl error: %s",
                  curl_easy_strerror(static_cast<CURLcode>(r.curlResult)));
        ret = ALIAS_RET_UNKNOWN;
        return false;
    }
    Trim(r.body);
    RELAY_LOG(log::Info, "HTTP: %d, Response: %s", r.status, r.body.c_str());
    httpStatus = r.status;
    if (r.status == 200) {
        body = r.body;
        return true;
    }
    RELAY_LOG(log::Error, "http status: %d", r.status);
    ret = ALIAS_RET_UNKNOWN;
    return false;
}

bool AliasRequest::ParseCURLHttp(ALIAS_RET& ret, std::string& body, int& httpStatus) {
    HTTPResponse r = Finished(request_);
    return ParseCURLHttp(r, ret, body, httpStatus);
}

bool AliasRequest::ParseCURLHttp(boost::shared_ptr<Request> req, ALIAS_RET& ret,
                                 std::string& body) {
    HTTPResponse r = Finished(*req);
    int httpStatus = -1;
    return ParseCURLHttp(r, ret, body, httpStatus);
}

bool AliasRequest::ResponseToString(ALIAS_RET ret, std::string& text) {
    const RetMapper* row = FindRow([=](const RetMapper& entry) { return entry.ret == ret; });
    if (row == nullptr) {
        return false;
    }
    text = row->text;
    return true;
}

bool AliasRequest::GetRetryType(ALIAS_RET ret, ALIAS_RETRY_TYPE& type) {
    const RetMapper* row = FindRow([=](const RetMapper& entry) { return entry.ret == ret; });
    if (row == nullptr) {
        return false;
    }
    type = static_cast<ALIAS_RETRY_TYPE>(row->retryType);
    return true;
}

void AliasRequest::Trim(std::string& s) {
    s.resize(strlen(s.c_str())); // nothing behind a zero byte is text
    const auto isInk = [](char c) { return static_cast<unsigned char>(c) > 32; };
    s.erase(std::find_if(s.rbegin(), s.rend(), isInk).base(), s.end());
    s.erase(s.begin(), std::find_if(s.begin(), s.end(), isInk));
}

} // namespace ZARO::Relay
