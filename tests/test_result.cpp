#include <zarorelayd/result.h>

#include "tests/support/unit.h"

using namespace ZARO::Relay;

TEST(Result, HasATextForEveryNumber) {
    const auto errors =
        Words("success err_unknown err_unknown err_config err_unknown err_register err_network "
              "err_resolv err_auth err_not_support err_server_busy err_lock err_server_limit "
              "err_server_changed err_server_ip_changed");
    const auto states = Words("error not_running starting login direct_connect connected "
                              "connected logout stoped");
    const auto server = Words("SUCCESS UNKNOWN AUTH NO_SUCH_API NO_SUCH_SERV NOT_SUPPORTED_VERSION "
                              "SESSION_TIMEOUT HAS_TUNNEL TL_FAIL INPUT DDNS_OCCUPIED SERVER_LIMIT "
                              "- SERVER_CHANGED IP_CHANGED");
    const std::vector<int> mapped = {0, 255, 8, 9, 9, 9, 8, 255, 255, 9, 8, 12, 9, 13, 14};
    for (int i = -300; i <= 300; i++) {
        const auto at = static_cast<std::size_t>(i);
        const auto err = static_cast<RELAYSERVER_ERR>(i);
        const std::string unknown = "(unknown errno: " + std::to_string(i) + ")";
        EXPECT_EQ(GetErrorStr(static_cast<RELAYD_RET>(i)), at < 15 ? errors[at] : "err_unknown");
        EXPECT_EQ(GetStateStr(static_cast<RELAYD_STATE>(i)), at < 9 ? states[at] : "error");
        EXPECT_EQ(GetServerErrorStr(err), at < 15 && at != 12 ? server[at] : unknown);
        EXPECT_EQ(RespErrMap(err), at < 15 ? mapped[at] : 9) << i;
    }
}

TEST(Result, ReadsTheErrorNumberOfReplies) {
    for (const char* odd :
         {R"({"errno":"0"})", R"({"errno":3000000000})", R"({"errno":false})", R"({"errno":{}})",
          R"([{},{"errno":0}])", R"([[{"errno":0}]])", R"(["errno"])", "[]", "{}", "0"}) {
        EXPECT_EQ(ParseServerError(Parse(odd)), RELAYSERVER_ERR_UNKNOWN) << odd;
    }
    EXPECT_EQ(ParseServerError(Parse(R"({"errno":99})")), 99);
    EXPECT_EQ(ParseServerError(Parse(R"([{"errno":0},{"errno":2}])")), 0);
}
