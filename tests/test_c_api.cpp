#include <zarorelayd/zarorelayd.h>

#include "tests/support/no_memory.h"
#include "tests/support/unit.h"

constexpr char kConf[] = "/usr/zaro/etc/zarorelayd.conf";
constexpr char kMac[] = "/proc/sys/kernel/zaro_mac_address1";
constexpr char kFull[] = R"({"serverID":"044756784","service":[7,{"id":5},{"id":"web"}]})";

struct CApiTest : RootTest {
    CApiTest() { root_.Write(kMac, "02004caabbcc\n"); }
    std::string File() { return Compact(Parse(root_.Read(kConf))); }
};

TEST_F(CApiTest, ServesPlainC) {
    root_.Write(kConf, kFull);
    EXPECT_EQ(Captured(STDERR_FILENO, [] { EXPECT_EQ(system("'" ZARO_C_PROGRAM "'"), 0); }),
              "zarorelayd not running\nzarorelayd not running\n");
    EXPECT_EQ(File(), R"({"log_file":"/tmp/debug.log","log_level":7,"serverID":"044756784",)"
                      R"("service":[7,{"id":5},{"id":"web"}]})");
}

TEST_F(CApiTest, GivesTheServerId) {
    const std::tuple<const char*, const char*, std::size_t, int, const char*> rows[] = {
        {kFull, "web", 9, 1, "04475678"},
        {kFull, "web", 0, 1, "old"},
        {kFull, "photos", 4, 0, "044"},
        {kFull, "", 4, 1, "044"}, // a malformed service counts as one without an id
        {R"({"serverID":"%s%n","service":{"id":"web"}})", "web", 9, 0, "%s%n"},
        {"[]", nullptr, 4, -1, ""}};
    for (const auto& [conf, service, size, result, id] : rows) {
        root_.Write(kConf, conf);
        char buffer[16] = "old";
        EXPECT_EQ(TLIBRelaydGetServerId(service, buffer, size), result) << conf;
        EXPECT_STREQ(buffer, id) << conf;
    }
}

TEST_F(CApiTest, VerifiesServerIds) {
    const std::tuple<const char*, const char*, int> rows[] = {
        {"02004caabbcc", "044756784", 1},  {"020000000001", "000000005", 1},
        {"020000800000", "033554435", 1},  {"", "", 1},
        {"02004caabbcc", "0447567840", 0}, {"02004caabbcc", " 044756784", 0},
        {"aabbcc", "044756784", 0}};
    for (const auto& [mac, id, result] : rows) {
        root_.Write(kMac, mac);
        root_.Write(kConf, std::string("{\"serverID\":\"") + id + "\"}");
        EXPECT_EQ(TLIBRelaydVerifyServerId(id), result) << id;
        EXPECT_EQ(TLIBRelaydVerifyServerId(nullptr), result) << id;
    }
}

TEST_F(CApiTest, TellsThatMemoryRanOut) {
    for (const char* pair : {"", "running=yes\nmac=02:00:4c:aa:bb:cc\n"}) {
        root_.Write("/usr/zaro/etc/ha.conf", pair);
        root_.Write(kMac, *pair == '\0' ? "02004caabbcc" : "02004c000000");
        int result = 0;
        const auto verify = [&] { result = TLIBRelaydVerifyServerId("044756784"); };
        WithEachAllocationFailing(verify, [&] {
            ASSERT_EQ(result != 1 ? errno : ENOMEM, ENOMEM) << pair;
            errno = 0; // the next failure has to set it again
        });
    }
}

TEST_F(CApiTest, SwitchesTheLogAndSignalsTheDaemon) {
    static volatile sig_atomic_t hups = 0; // this process plays the daemon
    signal(SIGHUP, [](int) { hups = hups + 1; });
    root_.Write("/var/run/zarorelayd.pid", std::to_string(getpid()) + "\n");
    root_.Write(kConf, R"({"log_level":"x","other":1})");
    EXPECT_EQ(TLIBRelaydLogStart("a\"b"), 0);
    EXPECT_EQ(File(), R"({"log_file":"a\"b","log_level":7,"other":1})");
    EXPECT_EQ(TLIBRelaydLogStop() + TLIBRelaydLogStop(), 0); // also with nothing to remove
    EXPECT_EQ(File() + std::to_string(hups), R"({"other":1}3)");
    for (const char* conf : {"[]", "5"}) {
        root_.Write(kConf, conf);
        EXPECT_EQ(TLIBRelaydLogStart(nullptr) + TLIBRelaydLogStart("x") + TLIBRelaydLogStop(), -3);
        EXPECT_EQ(root_.Read(kConf), conf);
    }
}
