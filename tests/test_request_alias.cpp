#include <zarorelayd/request_alias.h>

#include "tests/support/http_server.h"
#include "tests/support/unit.h"

using namespace ZARO::Relay;
using SharedRequest = boost::shared_ptr<Request>;

namespace {

constexpr ALIAS_RET kUntouched = static_cast<ALIAS_RET>(77);

Json::Value Data(const std::string& url) {
    Json::Value data = Parse(R"({"alias":"me","serial":"s","token":"t","id":"i"})");
    data["url"] = url;
    return data;
}

} // namespace

TEST(AliasRequest, BuildsEachCommand) {
    const std::pair<int, const char*> rows[] = {
        {1, "http://h/alias_update.php?action=map_alias&alias=me&id=i&serial=s&token=t"},
        {2, "http://h/alias_update.php?action=delete_alias&alias=me&id=i&serial=s&token=t"},
        {3, "http://h/alias_update.php?action=keep_alive_alias&alias=me&id=i&serial=s&token=t"},
        {4, "http://h/alias_query.php?action=query_alias&alias=me"}};
    AliasRequest alias;
    std::string url, body, name;
    for (const char* bad : {"[]", R"({"alias":"a","serial":"s","token":"t","url":"http://u"})",
                            R"({"alias":"a","serial":"s","token":5,"url":"http://u","id":"i"})",
                            R"({"alias":"a","serial":"s","token":"t","url":"http://u","id":""})"}) {
        EXPECT_FALSE(alias.SetRequest(ALIAS_REQUEST_MAP, Parse(bad))) << bad;
    }
    EXPECT_EQ(Signs({alias.GetRequest(body, url), alias.GetSharedRequest()->IsValid()}), "--");
    for (const auto& [cmd, sent] : rows) {
        EXPECT_TRUE(alias.SetRequest(static_cast<ALIAS_REQUEST_CMD>(cmd), Data("http://h")));
        const SharedRequest request = alias.GetSharedRequest();
        EXPECT_EQ(request->GetUrl() + "?" + request->GetData(), sent);
        EXPECT_TRUE(AliasRequest::GetAliasName(request, name));
        EXPECT_EQ(name, "me");
    }
    EXPECT_FALSE(alias.SetRequest(ALIAS_REQUEST_UNSPECIFIED, Data("http://h")));
    EXPECT_FALSE(alias.GetRequest(body, url));
    AliasRequest::ToPostRequest(Parse(R"({"b":"&=%","a":"","c":[5]})"), body);
    EXPECT_EQ(body, "a=&b=&=%&c=");
    const SharedRequest other(new Request("http://127.0.0.1/", "id=alias=x&ALIAS=y", true));
    EXPECT_FALSE(AliasRequest::GetAliasName(other, name));
}

TEST(AliasRequest, ReadsReplies) {
    // Reply, status (0: no server). Then of Send: result, outcome/kind of retry, type, status; for
    // the daemon: result, outcome, text behind the word. 77 and -: untouched.
    const std::tuple<std::string, int, const char*> rows[] = {
        {" \t\x01good\x1f\r\n", 200, "1 1/2 2 200; 1 1 -"},
        {std::string("good \0bad", 9), 200, "1 1/2 2 200; 1 1 -"},
        {"alias_inused:other:one", 200, "1 3/3 2 200; 1 3 other:one"},
        {"badsys", 200, "1 4/2 2 200; 1 4 -"},
        {"911", 200, "1 9/2 2 200; 1 9 -"},
        {"badip", 200, "1 11/3 2 200; 1 11 -"},
        {"alias_not_found", 200, "1 2/2 2 200; 1 2 -"},
        {"badparam", 200, "1 5/2 2 200; 1 5 -"},
        {"badauth:", 200, "1 8/3 2 200; 1 8 "},
        {R"({"any":"thing"})", 200, "1 1/2 1 200; 0 77 -"},
        {"good2", 200, "0 77/- 2 200; 0 77 -"},
        {"<html>good</html>", 200, "0 77/- 2 200; 0 77 -"},
        {std::string(std::size_t{3} << 20, 'x'), 200, "1 12/2 3 -1; 1 12 -"}, // cut off
        {"\x80good", 200, "0 77/- 2 200; 0 77 -"},
        {"good", 504, "1 12/2 3 504; 1 12 -"},
        {"good", 0, "1 12/2 3 -1; 1 12 -"}};
    for (const auto& [reply, status, expected] : rows) {
        auto server = std::make_unique<HttpServer>(reply, status);
        AliasRequest alias;
        EXPECT_TRUE(alias.SetRequest(ALIAS_REQUEST_KEEP_ALIVE, Data(server->Url(""))));
        if (status == 0) {
            server.reset();
        }
        ALIAS_RET ret = kUntouched, queuedRet = kUntouched;
        ALIAS_RESPONSE_TYPE type = {};
        int httpStatus = 0;
        std::string extra = "-";
        const bool sent = alias.Send(ret, type);
        alias.GetResponse(httpStatus);
        const SharedRequest queued = alias.GetSharedRequest();
        queued->Send();
        const bool known = AliasRequest::GetResponseForDaemon(queued, queuedRet, extra);
        std::ostringstream outcome;
        ALIAS_RETRY_TYPE retry = {};
        const bool retries = AliasRequest::GetRetryType(ret, retry);
        outcome << sent << ' ' << ret << '/' << (retries ? std::to_string(retry) : "-") << ' '
                << type << ' ' << httpStatus << "; " << known << ' ' << queuedRet << ' ' << extra;
        EXPECT_EQ(outcome.str(), expected) << reply.substr(0, 40);
    }
    ALIAS_RET ret = kUntouched;
    EXPECT_FALSE(AliasRequest().Send(ret));
}
