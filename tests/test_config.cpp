#include <zarorelayd/config.h>

#include "tests/support/platform_standin.h"
#include "tests/support/unit.h"

using namespace ZARO::Relay;

namespace {

static_assert(std::is_convertible_v<Json::Value, ServerConf> &&
              std::is_convertible_v<const char*, ServiceConf> &&
              std::is_convertible_v<bool, NetworkConf> && std::is_convertible_v<bool, AuthConf> &&
              std::is_convertible_v<_tag_TLIB_NETIF, InterfaceConf> &&
              std::is_convertible_v<const char*, RelaydConf> &&
              std::is_convertible_v<std::string, CmprServiceId>);

constexpr char kInfo[] = "/etc/zaroinfo.conf";
constexpr char kMac[] = "/proc/sys/kernel/zaro_mac_address1";

struct ConfigTest : RootTest {
    ConfigTest() { gPlatform = {}; }
};

template <class Record> Record With(Record record, const std::string& json) {
    EXPECT_TRUE(record.Overwrite(Parse(json)));
    return record;
}

} // namespace

TEST_F(ConfigTest, RecordsIgnoreWrongTypes) {
    KeepsItsFields(ServerConf("", ""),
                   R"({"protocol":"p","host":"h","ip":"i","page":"x","port":1})");
    KeepsItsFields(ServiceConf(nullptr), R"({"id":"a","name":"n","port":80,"ext_port":81})");
    KeepsItsFields(NetworkConf(false), R"({"gateway":"g","ddns":"d","mode":"m"})");
    KeepsItsFields(AuthConf(false), R"({"serial":"s","token":"t","mac":"m"})");
}

TEST_F(ConfigTest, JudgesServersAndBuildsTheirUrls) {
    const std::pair<const char*, const char*> rows[] = {
        {R"({"ip":"10.0.0.1"})", "http://10.0.0.1:80/Serv.php"},
        {R"({"host":"h","ip":"i","protocol":"https","port":0,"page":"p"})", "https://h:0/p"},
        {R"({"host":"h","port":-1})", ""},
        {R"({"host":"h","protocol":"HTTPS"})", ""},
        {"[]", ""}};
    for (const auto& [json, url] : rows) {
        EXPECT_EQ(ServerConf(Parse(json)).GetUrl(nullptr), url) << json;
        EXPECT_EQ(ServerConf(Parse(json)).IsValid(), *url != '\0') << json;
    }
    const ServerConf byAddress = With(ServerConf(nullptr, "p"), R"({"ip":"i"})");
    EXPECT_EQ(byAddress.GetUrl("/x"), "http://i:80//x");
    EXPECT_EQ(Written(byAddress, false) + Written(ServerConf("h", "p"), false),
              R"({"host":"","ip":"i"}{"host":"h"})");
}

TEST_F(ConfigTest, ComparesWhatCounts) {
    const ServerConf server(nullptr, nullptr);
    const ServiceConf service(nullptr);
    for (const char* json :
         {R"({"port":1})", R"({"host":"x","id":"x"})", R"({"protocol":"x","ext_port":1})"}) {
        EXPECT_EQ(Signs({With(server, json) != server, With(service, json) != service}), "++")
            << json;
    }
    EXPECT_TRUE(With(server, R"({"ip":"x","page":"x"})") == server);
    EXPECT_TRUE(With(service, R"({"name":"x"})") == service);
    const char* const json = R"({"interface":[{"name":"a","ip":"1","mask":"m"},
        {"name":"b","ip":"1","mask":"m"},{"name":"n","ip":"i"},{},5,null,[]]})";
    const NetworkConf net = With(NetworkConf(false), json);
    NetworkConf turned = net;
    turned.interfaces.reverse();
    EXPECT_EQ(net.interfaces.size(), 2U);
    EXPECT_EQ(Signs({net != turned, net != With(net, R"({"ddns":"x"})")}), "++");
    EXPECT_TRUE(With(net, R"({"mode":"x","interface":{}})") == net);
}

TEST_F(ConfigTest, ReadsServicesFromThePlatform) {
    for (const auto& [name, text] : {std::pair("web", "title=T\ntcp=80"),
                                     {"music_http", "tcp=1"}, // never looked up
                                     {"panel", "title=T\nsection=app\nkey=music\ntcp=8080"},
                                     {"two", "section=half\ntcp=\"1, 2\""}}) {
        root_.Write(std::string("/usr/zaro/etc/services.d/") + name + ".conf", text);
    }
    root_.Write("/usr/zaro/etc/portforward.conf", "[r1]\nservice=web\nr_port=8000\n");
    const std::pair<const char*, const char*> rows[] = {
        {R"({"id":"web","port":81})", R"({"ext_port":8000,"id":"web","name":"T","port":81})"},
        {R"({"id":"music_http"})", R"({"id":"music_http","name":"app:music","port":8080})"},
        {R"({"id":"two"})", R"({"id":"two","name":""})"},
        {R"({"id":"absent","port":"3"})", R"({"id":"absent","name":""})"}};
    for (const auto& [json, full] : rows) {
        const ServiceConf service(Parse(json), true);
        EXPECT_EQ(Written(service, true), full);
        EXPECT_EQ(service.IsValid(), strstr(full, "\"port\"") != nullptr) << json;
    }
}

TEST_F(ConfigTest, ReadsTheNetworkFromThePlatform) {
    const _tag_TLIB_NETIF up = {"eth0", "10.0.0.2", "255.255.255.0", 2, {}};
    gPlatform.nics = {up, up};
    gPlatform.nics[1].nState = 1;
    gPlatform.pppoe = 1;
    root_.Write("/proc/net/route", "head\neth0 00000000 0100000A 0003 0 0 0 00000000 0 0 0\n");
    root_.Write("/usr/zaro/etc/ddns.conf", "[dyn]\nhostname=me.example\n");
    root_.Write(kInfo, "supportddns=\"yes\"\nddns_update=\"YES\"\nddns_select=\"dyn\"\n");
    EXPECT_EQ(Written(NetworkConf(true), true),
              R"({"ddns":"me.example","gateway":"10.0.0.1","interface":[)"
              R"({"ip":"10.0.0.2","mask":"255.255.255.0","name":"eth0"},)"
              R"({"ip":"","mask":"255.255.255.255","name":"pppoe"}],"mode":""})");
    gPlatform.pppoe = 2;
    gPlatform.nics.assign(40, up);
    root_.Write(kInfo, "supportddns=\"yes\"\nddns_select=\"dyn\"\n");
    const NetworkConf many(true);
    EXPECT_EQ(many.ddns + " " + std::to_string(many.interfaces.size()), " 32");
    EXPECT_TRUE(many.IsValid());
}

TEST_F(ConfigTest, ReplacesSerialAndTokenAsAPair) {
    const AuthConf old = With(AuthConf(false), R"({"serial":"s","token":"t","mac":"m"})");
    const std::string kept = Written(old, true);
    EXPECT_EQ(Written(old, false), R"({"mac":"m","serial":"s","timezone":""})");
    EXPECT_EQ(Written(With(old, R"({"serial":"","token":"new"})"), true), kept);
    EXPECT_EQ(With(old, R"({"serial":"n","token":"x"})").token, "x");
    EXPECT_EQ(With(old, R"({"serial":"n","token":5})").token.size(), 32u); // the platform's
}

TEST_F(ConfigTest, FindsTheHardwareAddress) {
    const std::string mac("\x02\x00\x4c\xaa\xbb\x0c", 6);
    // Address of the cluster, of the interface and in the file; then the result, also with colons.
    const std::tuple<const char*, std::string, const char*, const char*, const char*> rows[] = {
        {"", mac, "020000000000", "02004CAABB0C", "02:00:4C:AA:BB:0C"},
        {"", "", " 02004caabbcc more", "02004caabbcc", "02:00:4c:aa:bb:cc"},
        {"02:00:4C:AA:BB:CC", mac, "", "02004CAABBCC", "02:00:4C:AA:BB:CC"},
        {"", "", "02004caabbccd", "", ""}};
    for (const auto& [pair, interface, file, bare, colons] : rows) {
        root_.Write("/usr/zaro/etc/ha.conf", std::string(*pair ? "running=yes\nmac=" : "") + pair);
        root_.Write(kMac, file);
        gPlatform.mac = interface;
        EXPECT_EQ(AuthConf::RelaydGetMacAddressByIf("eth0"), bare) << file;
        EXPECT_EQ(AuthConf::GetMacAddress(), colons) << file;
    }
}
