#include <zarorelayd/register.h>

#include "tests/support/unit.h"

using namespace ZARO::Relay;

namespace {

constexpr char kConf[] = "/usr/zaro/etc/zarorelayd.conf";
constexpr char kOk[] = R"([{"errno":0},{"errno":0},{"errno":0}])";

struct RegisterTest : RootTest {
    RegisterTest() {
        conf_.auth.Overwrite(Parse(R"({"serial":"s","token":"t","mac":"m"})"));
        conf_.path = root_.Path(kConf);
        SetService("web", R"({"id":"web","name":"n","port":80})");
    }

    void SetService(const char* id, const char* json) {
        conf_.services.remove_if(CmprServiceId(id));
        conf_.services.push_back(ServiceConf(Parse(json), false));
    }

    Json::Value Changes() {
        Json::Value batch;
        EXPECT_TRUE(register_.GetChanges(conf_, tunnels_, batch));
        return batch;
    }

    /// Sends the next batch and gets these replies.
    bool Send(const char* replies) {
        return register_.ParseResponse(conf_, Changes(), Parse(replies));
    }

    /// The commands of the next batch.
    std::string Commands() {
        std::string names;
        for (const Json::Value& command : Changes()) {
            names += command["command"].asString() + " ";
        }
        return names;
    }

    RelaydConf conf_{nullptr};
    Register register_;
    std::list<Tunnel> tunnels_;
};

} // namespace

TEST_F(RegisterTest, SendsWhatTheServerDoesNotKnow) {
    conf_.network.gateway = "g";
    conf_.serverID = "12";
    const Json::Value all = Changes();
    EXPECT_EQ(
        Compact(all),
        R"([{"auth":{"mac":"m","serial":"s","serverID":"12","timezone":"","token":"t"},)"
        R"("command":"register","version":1},{"command":"update_network","ddns":"",)"
        R"("gateway":"g","interface":[],"mode":"","version":1},{"command":"update_service",)"
        R"("service_add":[{"id":"web","port":80}],"service_rm":[],"service_update":[],"version":1}])");
    EXPECT_TRUE(Send(kOk));
    Json::Value direct;
    EXPECT_TRUE(register_.GetDirConnRequest(conf_, tunnels_, direct));
    EXPECT_EQ(direct, all);
    SetService("web", R"({"id":"web","name":"another","port":80})");
    conf_.network.mode = "another";
    tunnels_ = {Tunnel(), Tunnel(Parse(R"({"id":"web","port":80})"))};
    EXPECT_EQ(Compact(Changes()) + std::to_string(tunnels_.size()), "[]2");
    SetService("web", R"({"id":"web","port":81})");
    SetService("new", R"({"id":"new","port":84})");
    Changes();                      // is lost, and will be repeated
    EXPECT_EQ(tunnels_.size(), 1u); // the changed service's tunnel is gone
    EXPECT_EQ(Compact(Changes()),
              R"([{"command":"update_service","service_add":[{"id":"new","port":84}],)"
              R"("service_rm":[],"service_update":[{"id":"web","port":81}],"version":1}])");
    EXPECT_TRUE(Send(kOk));
    conf_.RemoveServiceById("new");
    EXPECT_EQ(Compact(Changes()[0]["service_rm"]), R"([{"id":"new"}])");
    EXPECT_EQ(Signs({Send(kOk), Commands().empty(), register_.SetAuthExpired()}), "+++");
    EXPECT_EQ(Commands(), "register update_network update_service ");
    EXPECT_TRUE(Send(kOk));
    conf_.control.page = "other.php";
    EXPECT_EQ(Signs({register_.IsCtrlServerChanged(conf_), Commands().empty()}), "-+");
    conf_.control.host = "other";
    EXPECT_TRUE(register_.IsCtrlServerChanged(conf_));
    EXPECT_EQ(Changes()[2]["service_add"].size(), 1u);
    EXPECT_EQ(register_.GetOldServerUrl(), conf_.control.GetUrl(nullptr));
}

TEST_F(RegisterTest, AppliesRepliesOneByOne) {
    const char* const all = "register update_network update_service ";
    const std::tuple<const char*, bool, const char*> rows[] = {
        {R"([{"errno":0},{"errno":0},{"errno":0},{"errno":2}])", true, ""},
        {R"([{"errno":0},{"errno":9},{"errno":0}])", false, "update_network "},
        {R"([{"errno":0},{"errno":0}])", false, "update_service "},
        {R"([{"errno":2},{"errno":0},{"errno":0}])", false, all}, // everything is sent again
        {R"({"errno":0})", false, all}};
    conf_.network.gateway = "g";
    for (const auto& [replies, result, next] : rows) {
        register_ = Register();
        EXPECT_EQ(Send(replies), result) << replies;
        EXPECT_EQ(Commands(), next) << replies;
    }
}

TEST_F(RegisterTest, TakesWhatTheServerAssigns) {
    root_.Write(kConf, R"({"kept":1})");
    conf_.network.gateway = "g";
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {R"([{"errno":0,"serverID":5,"server_wait_cmd":"http://x"},{"errno":0,"mode":"m"}])",
         "http://control-a.zaro.example:80/Serv.php", R"({"kept":1})"},
        {R"([{"errno":0,"serverID":"12","server_wait_cmd":{"host":"w","port":"x"}},{"errno":0}])",
         "http://w:80/Serv.php", R"({"kept":1,"serverID":"12"})"},
        {R"([{"errno":0,"server_wait_cmd":{"port":8080}},{"errno":0,"mode":5}])",
         "http://w:8080/Serv.php", R"({"kept":1,"serverID":"12"})"}};
    for (const auto& [reply, wait, file] : rows) {
        register_ = Register();
        EXPECT_FALSE(Send(reply)); // a reply is missing
        EXPECT_EQ(Commands(), "update_service ") << reply;
        EXPECT_EQ(conf_.waitcmd.GetUrl(nullptr), wait) << reply;
        EXPECT_EQ(Compact(Parse(root_.Read(kConf))) + conf_.network.mode, file + std::string("m"));
    }
}

TEST_F(RegisterTest, SurvivesHostileBatches) {
    EXPECT_TRUE(Send(kOk));
    for (const char* command : {"5", R"({"command":{}})", R"({"command":"update_service"})",
                                R"({"command":"update_service","service_rm":[5,{},{"id":5},null],
              "service_add":[5,[],{"id":"x"},{"id":"","port":1}],"service_update":[{"port":1},7]})"}) {
        register_.ParseResponse(conf_, Parse(std::string("[") + command + "]"), Parse(kOk));
        EXPECT_EQ(Commands(), "") << command;
    }
    EXPECT_FALSE(register_.ParseResponse(conf_, 5, 5));
}
