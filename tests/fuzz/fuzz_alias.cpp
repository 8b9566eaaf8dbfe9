/// What the alias server says, and the form that asks it. The first byte is "2" for status 200.
#include <zarorelayd/request_alias.h>

#include "base/json.h"
#include "tests/fuzz/fuzz.h"

void Fuzz(const std::string& input) {
    HTTPResponse reply = {input[0] == '2' ? 200 : input[0], input.substr(!input.empty()), 0};
    static AliasRequest request;
    Json::Value data;
    const bool isForm =
        json::Parse(reply.body, data) && request.SetRequest(ALIAS_REQUEST_MAP, data);
    ALIAS_RET ret = ALIAS_RET_SUCCESS;
    ALIAS_RESPONSE_TYPE type = ALIAS_RESPONSE_NONE;
    std::string text, extra, alias;
    assert(!request.TakeReply(reply, ret, type) || AliasRequest::ResponseToString(ret, text));
    assert(!AliasRequest::GetResponseForDaemon(reply, ret, extra) ||
           AliasRequest::ResponseToString(ret, text));
    assert(extra.empty() || reply.body.find(':' + extra) == reply.body.find(':'));
    assert(!isForm || AliasRequest::GetAliasName(request.GetSharedRequest(), alias));
    assert(!isForm || data["alias"] == alias || !app::IsAliasName(data["alias"].asString()));
}
