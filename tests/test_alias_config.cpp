#include <zarorelayd/config_alias.h>

#include "tests/support/unit.h"

using namespace ZARO::Relay;

using AliasConfigTest = RootTest;

TEST_F(AliasConfigTest, OverwriteKeepsAllButTheAlias) {
    AliasConf alias;
    EXPECT_EQ(Written(alias, true), R"({"alias":""})"); // only what differs from the defaults
    EXPECT_EQ(Written(alias, false),
              R"({"alias":"","poll_seconds":7200,"url":"https://aliasinfo.zaro.example"})");
    for (const char* json : {R"({"poll_seconds":3000000000,"url":["x"]})", "[]",
                             R"({"alias":5,"url":"","poll_seconds":0})"}) {
        alias.Overwrite(Parse(R"({"alias":"old","url":"http://u","poll_seconds":9})"));
        EXPECT_TRUE(alias.IsAliasEnabled());
        EXPECT_TRUE(alias.Overwrite(Parse(json)));
        EXPECT_EQ(Written(alias, true), R"({"alias":"","poll_seconds":9,"url":"http://u"})")
            << json;
    }
    for (const int seconds : {1, 7200, 1500000000}) {
        alias.Overwrite(Parse("{\"poll_seconds\":" + std::to_string(seconds) + "}"));
        for (int i = 0; i < 50; i++) {
            EXPECT_EQ(alias.GetPollingTime() / seconds, 1) << seconds; // less than twice as long
        }
    }
}

TEST_F(AliasConfigTest, StatusIsWholeAndAboutOneAlias) {
    std::string status = "kept", extra = "kept";
    AliasStatus writer;
    EXPECT_TRUE(writer.SetStatus("me", "good", "more", true));
    EXPECT_FALSE(writer.GetStatus("other", status, extra));
    EXPECT_EQ(status + extra, "keptkept");
    const std::string file = root_.Path("/tmp/farlink_alias.status");
    GiveAway(file, 12345); // another user may have set it
    EXPECT_TRUE(AliasStatus().GetStatus("me", status, extra));
    EXPECT_EQ(status + extra, "goodmore");
    fs::rename(file, file + "1");
    fs::create_symlink(file + "1", file);
    EXPECT_FALSE(AliasStatus().GetStatus("me", status, extra));
    for (const char* bad :
         {"[]", "{}", R"({"alias_name":["me"]})", R"({"alias_name":"a","status":{}})",
          R"({"alias_name":"","status":"good"})"}) {
        root_.Write("/tmp/farlink_alias.status", bad);
        EXPECT_EQ(Signs({writer.Reload(), writer.GetStatus("me", status, extra)}), "+-") << bad;
        EXPECT_FALSE(writer.DumpToFile()) << bad;
        EXPECT_TRUE(writer.SetStatus("me", "good", "more", true)) << bad;
    }
}
