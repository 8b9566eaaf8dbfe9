/// The alias pages: words, ownership, expiry and the public query.
#include "tests/support/hub_kit.h"

namespace ZARO::RelayHub {
namespace {

struct HubAlias : testing::Test {
    std::string Ask(const std::string& form, const std::string& page = "/alias_update.php") {
        const httplib::Result result = devices_[0].PostRaw(form, page);
        return StatusOf(result) == 200 ? result->body : "no reply";
    }
    /// A command of device 1 or 2, as devices send it.
    std::string Update(int number, const std::string& action, const std::string& name) {
        const TestDevice& device = devices_[static_cast<size_t>(number - 1)];
        return Ask("action=" + action + "&alias=" + name + "&id=" + device.id +
                   "&serial=" + device.serial + "&token=" + device.token);
    }
    std::string Query(const std::string& name) {
        return Ask("action=query_alias&alias=" + name, "/alias_query.php");
    }

    const HubProcess hub_;
    std::vector<TestDevice> devices_ = {TestDevice(hub_, 1, "web"), TestDevice(hub_, 2, "web")};
};

TEST_F(HubAlias, AnswersWithItsWords) {
    const std::tuple<int, const char*, const char*, const char*> kSteps[] = {
        {1, "keep_alive_alias", "home", "alias_not_found"},
        {1, "delete_alias", "home", "alias_not_found"},
        {1, "map_alias", "home", "good"},
        {1, "map_alias", "home", "good"},
        {1, "keep_alive_alias", "home", "good"},
        {2, "map_alias", "home", "alias_inused"},
        {2, "keep_alive_alias", "home", "alias_inused"},
        {2, "delete_alias", "home", "alias_not_found"},
        {1, "map_alias", "my-new-home2", "good"}, // gives the former one up
        {2, "map_alias", "h%6Fme", "good"},       // escaped, it is the same name
        {1, "keep_alive_alias", "home", "alias_inused"},
        {1, "delete_alias", "my-new-home2", "good"},
        {1, "keep_alive_alias", "my-new-home2", "alias_not_found"},
        {1, "map_alias", "Home", "badparam"},
        {1, "map_alias", "ho me", "badparam"},
        {1, "map_alias", "h%00", "badparam"},
        {1, "map_alias", "", "badparam"},
        {1, "map_alias", "../etc", "badparam"},
        {1, "steal_alias", "home", "badparam"},
        {1, "query_alias", "home", "badparam"}};
    for (const auto& [device, action, name, word] : kSteps) {
        EXPECT_EQ(Update(device, action, name), word) << device << " " << action << " " << name;
    }
    EXPECT_EQ(Update(1, "map_alias", std::string(63, 'a')), "good");
    EXPECT_EQ(Update(1, "map_alias", std::string(64, 'a')), "badparam");
    EXPECT_EQ(Query("Home"), "badparam");
    EXPECT_EQ(Ask("", "/alias_query.php"), "badparam");
    EXPECT_EQ(Ask("action=map_alias&alias=x", "/alias_query.php"), "badparam");
}

TEST_F(HubAlias, ChecksCredentials) {
    const std::string good = "action=map_alias&alias=x&id=" + devices_[0].id + "&serial=SERIAL-1";
    const std::pair<std::string, const char*> kRows[] = {
        {good + "&token=token1", "good"},
        {good + "&token=token2", "badauth"},
        {good + "&token=", "badparam"},
        {good, "badparam"},
        {"action=map_alias&alias=x&id=" + devices_[1].id + "&serial=SERIAL-1&token=token1",
         "badauth"},
        {"action=map_alias&alias=x&serial=SERIAL-1&token=token1", "badparam"},
        {"action=map_alias&alias=x&id=1&serial=NOBODY&token=token1", "badauth"},
        {"&&=&&&%%%=%&" + good + "&token=token1", "good"}};
    for (const auto& [form, word] : kRows) {
        EXPECT_EQ(Ask(form), word) << form;
    }
}

TEST_F(HubAlias, ShowsTheServicesToAnybody) {
    EXPECT_EQ(Query("home"), "alias_not_found");
    ASSERT_EQ(Update(1, "map_alias", "home"), "good");
    const Json::Value reply = Parse(Query("home"));
    const Json::Value web = reply["services"][0];
    EXPECT_EQ(reply["alias"], "home");
    EXPECT_EQ(reply["id"], devices_[0].id);
    EXPECT_EQ(web["address"], "127.0.0.1:" + devices_[0].Tunnels()["web"]["relay_port"].asString());
    EXPECT_EQ(web["id"], "web");
    EXPECT_FALSE(web["relay_up"].asBool());
    EXPECT_EQ(Query("home").find("pass"), std::string::npos);
    httplib::Client plain("127.0.0.1", hub_.HttpPort());
    const httplib::Result result = plain.Post("/alias_query.php", "action=query_alias", "text");
    EXPECT_EQ(StatusOf(result), 404) << "tokens never travel in the clear";
}

} // namespace
} // namespace ZARO::RelayHub
