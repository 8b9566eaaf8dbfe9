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

TEST(AliasRequest, KnowsEveryOutcome) {
    const auto rows = Words(
        "1:2:success:good 9:2:error_911:911 4:2:error_system:badsys 6:1:error_network: "
        "7:1:error_dns: 10:1:error_server_busy: 8:3:error_auth:badauth "
        "11:3:error_bad_ip:badip 2:2:error_not_found:alias_not_found "
        "3:3:error_inused:alias_inused 5:2:error_bad_param:badparam 12:2:error_unknown: 0:0::");
    for (std::size_t i = 0; i < rows.size(); i++) {
        const RetMapper& row = gRetMapper[i];
        const std::string known = std::to_string(row.ret) + ":" + std::to_string(row.retryType);
        EXPECT_EQ(known + ":" + row.text + ":" + row.reply, rows[i]);
        std::string text;
        ALIAS_RETRY_TYPE type = {};
        EXPECT_EQ(AliasRequest::ResponseToString(static_cast<ALIAS_RET>(row.ret), text), i < 12);
        EXPECT_EQ(AliasRequest::GetRetryType(static_cast<ALIAS_RET>(row.ret), type), i < 12);
        EXPECT_EQ(text + std::to_string(type), row.text + std::to_string(row.retryType));
    }
}

TEST(AliasRequest, ChecksItsData) {
    const std::pair<const char*, const char*> rows[] = {
        {"[]", "data should be an object"},
        {"{}", "alias name is not found"},
        {R"({"alias":5,"serial":"","token":[],"url":{}})", "farlink_id is not found"},
        {R"({"alias":5,"serial":5,"token":5,"url":5,"id":5})", "alias name is not string or empty"},
        {R"({"alias":"a","serial":"s","token":"t","url":"u","id":""})",
         "id is not string or empty"}};
    for (const auto& row : rows) {
        EXPECT_TRUE(Logs("request_alias", 3, row.second, [&] {
            EXPECT_FALSE(AliasRequest().SetRequest(ALIAS_REQUEST_MAP, Parse(row.first)));
        }));
    }
}

TEST(AliasRequest, BuildsEachCommand) {
    const std::pair<int, const char*> rows[] = {
        {1, "http://h/alias_update.php?action=map_alias&alias=me&id=i&serial=s&token=t"},
        {2, "http://h/alias_update.php?action=delete_alias&alias=me&id=i&serial=s&token=t"},
        {3, "http://h/alias_update.php?action=keep_alive_alias&alias=me&id=i&serial=s&token=t"},
        {4, "http://h/alias_query.php?action=query_alias&alias=me"}};
    AliasRequest alias;
    std::string url, body, name;
    EXPECT_FALSE(alias.GetRequest(body, url) || alias.GetSharedRequest()->IsValid());
    for (const auto& [cmd, sent] : rows) {
        EXPECT_TRUE(alias.SetRequest(static_cast<ALIAS_REQUEST_CMD>(cmd), Data("http://h")));
        const SharedRequest request = alias.GetSharedRequest();
        EXPECT_EQ(request->GetUrl() + "?" + request->GetData(), sent);
        EXPECT_TRUE(AliasRequest::GetAliasName(request, name) && name == "me");
    }
    EXPECT_FALSE(alias.SetRequest(ALIAS_REQUEST_UNSPECIFIED, Data("http://h")));
    EXPECT_FALSE(alias.GetRequest(body, url));
    AliasRequest::ToPostRequest(Parse(R"({"b":"&=%","a":"","c":[5]})"), body);
    EXPECT_EQ(body, "a=&b=&=%&c=");
    const SharedRequest other(new Request("http://127.0.0.1/", "id=alias=x&ALIAS=y", true));
    EXPECT_TRUE(Logs("request_alias", 3, "not found alias name from post data [id=alias=x&ALIAS=y]",
                     [&] { EXPECT_FALSE(AliasRequest::GetAliasName(other, name)); }));
    EXPECT_DEATH(AliasRequest::GetAliasName(SharedRequest(), name), "px != 0");
}

TEST(AliasRequest, ReadsReplies) {
    // Reply, status (0: no server); result, outcome and type of Send; the outcome for the daemon
    // (77: unknown) and what came behind the word.
    const std::tuple<std::string, int, bool, int, int, int, const char*> rows[] = {
        {" \t\x01good\x1f\r\n", 200, true, 1, 2, 1, "-"},
        {std::string("good \0bad", 9), 200, true, 1, 2, 1, "-"},
        {"alias_inused:other:one", 200, true, 3, 2, 3, "other:one"},
        {"badauth:", 200, true, 8, 2, 8, ""},
        {R"({"any":"thing"})", 200, true, 1, 1, 77, "-"},
        {"good2", 200, false, 77, 2, 77, "-"},
        {"<html>good</html>", 200, false, 77, 2, 77, "-"},
        {std::string(std::size_t{3} << 20, 'x'), 200, true, 12, 3, 12, "-"}, // cut off
        {"\x80good", 200, false, 77, 2, 77, "-"},
        {std::string(1500, '['), 200, false, 77, 2, 77, "-"},
        {" \r\n ", 200, false, 77, 2, 77, "-"},
        {"good", 504, true, 12, 3, 12, "-"},
        {"good", 0, true, 12, 3, 12, "-"}};
    for (const auto& [reply, status, sent, ret, type, daemonRet, extra] : rows) {
        auto server = std::make_unique<HttpServer>(reply, status);
        AliasRequest alias;
        EXPECT_TRUE(alias.SetRequest(ALIAS_REQUEST_KEEP_ALIVE, Data(server->Url(""))));
        if (status == 0) {
            server.reset();
        }
        ALIAS_RET gotRet = kUntouched, gotDaemonRet = kUntouched;
        ALIAS_RESPONSE_TYPE gotType = {};
        int gotStatus = 0;
        std::string gotExtra = "-";
        EXPECT_EQ(alias.Send(gotRet, gotType), sent) << reply.substr(0, 40);
        alias.GetResponse(gotStatus);
        const SharedRequest queued = alias.GetSharedRequest();
        queued->Send();
        const bool none = status == 0 || reply.size() > (std::size_t{1} << 20);
        EXPECT_EQ(AliasRequest::GetResponseForDaemon(queued, gotDaemonRet, gotExtra),
                  daemonRet != 77);
        EXPECT_EQ(std::tuple(int{gotRet}, int{gotType}, int{gotDaemonRet}, gotExtra, gotStatus),
                  std::tuple(ret, type, daemonRet, extra, none ? -1 : status))
            << reply.substr(0, 40);
    }
    ALIAS_RET ret = kUntouched;
    EXPECT_TRUE(Logs("request_alias", 3, "No valid request found!! Please call SetRequest() first",
                     [&] { EXPECT_FALSE(AliasRequest().Send(ret)); }));
}
