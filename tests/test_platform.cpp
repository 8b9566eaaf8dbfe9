#include <arpa/inet.h>

#include <set>

#include "tests/support/process.h"
#include "tests/support/temp_root.h"
#include "zaro/platform.h"

namespace {

using std::string;

const string kInfo = "/etc/zaroinfo.conf", kKey = "/usr/zaro/etc/device.key";
const string kServices = "/usr/zaro/etc/services.d/";

/// Runs `body` with each word, in one process per word, all at once; waits until they have ended.
template <class Body> void AtOnce(const std::vector<string>& words, Body body) {
    for (const string& word : words) {
        if (fork() == 0) {
            body(word);
            _exit(0);
        }
    }
    for (int status = 0; wait(&status) > 0;) {
        EXPECT_EQ(status, 0);
    }
}

struct stat Stat(const string& file) {
    struct stat info {};
    EXPECT_EQ(lstat(file.c_str(), &info), 0) << file;
    return info;
}

TEST(Settings, ReadsKeyOfFile) {
    const std::tuple<const char*, string, const char*, int> rows[] = {
        {"quoted", "k=\"a b\"\n", "a b", 64},
        {"plain", "k=a b \n", "a b", 64},
        {"blanks around", "\t k \t= \"a\" \r\n", "a", 64},
        {"no line end at the end of the file", "x=1\nk=a", "a", 64},
        {"comments after values", "k=\"a#b\" # \"c\"\n", "a#b", 64},
        {"number sign within a plain value", "k=a#b #c\n", "a#b", 64},
        {"last one wins", "k=\"a\"\nk=b\n", "b", 64},
        {"comment", "#k=a\n # k=b\n", "", 64},
        {"longer key", "kk=a\nxk=b\n", "", 64},
        {"unclosed quote says nothing", "k=a\nk=\"b\n", "a", 64},
        {"text after the quote says nothing", "k=a\nk=\"b\"c\n", "a", 64},
        {"zero byte says nothing", string("k=a\0b\n\xff\xfe=\n=\n", 13), "", 64},
        {"empty", "k=\nx=1\n", "", 64},
        {"cut to the buffer", "k=abcdefgh\n", "abcdefg", 8},
        {"never cut within a character", "k=abcdef\xc3\xa4\n", "abcdef", 8},
        {"no room for a character", "k=a\n", "", 1}};
    const TempRoot root;
    for (const auto& [name, text, value, size] : rows) {
        root.Write(kInfo, text);
        char buf[64] = "";
        const int length = TLIBCFileGetKeyValue(root.Path(kInfo).c_str(), "k", buf, size, 0);
        EXPECT_STREQ(buf, value) << name;
        EXPECT_EQ(length, static_cast<int>(strlen(buf))) << name;
    }
}

TEST(Settings, RefusesWhatIsNoSmallRegularFile) {
    const TempRoot root;
    root.Write("/huge", "k=a\n" + string(2 << 20, '#'));
    ASSERT_EQ(mkfifo(root.Path("/fifo").c_str(), 0600), 0);
    for (const char* file : {"/etc", "/fifo", "/huge", "/missing"}) {
        char buf[8] = "before";
        EXPECT_LT(TLIBCFileGetKeyValue(root.Path(file).c_str(), "k", buf, 8, 0), 0) << file;
        EXPECT_NE(TLIBCErrGet(), 0U) << file;
        EXPECT_STREQ(buf, "before") << file;
    }
}

TEST(Settings, WritesKeyAndKeepsTheRest) {
    const char* const rows[][4] = {
        {"added after an unfinished line", "# c\nx=1", "v", "# c\nx=1\nk=\"v\"\n"},
        {"in its place, every one", "z=\n k = old # why\n#k=2\nk=\"2\"\r\nk=# none\nx=1\n", "v",
         "z=\n k = \"v\" # why\n#k=2\nk=\"v\"\r\nk=\"v\"# none\nx=1\n"},
        {"beside a broken line", "k=\"1\n", "v", "k=\"1\nk=\"v\"\n"},
        {"with odd characters", "k=1\n", "a=b #c\\", "k=\"a=b #c\\\"\n"},
        {"emptied", "k=1\n", "", "k=\"\"\n"}};
    const TempRoot root;
    for (const auto& [name, before, value, after] : rows) {
        root.Write(kInfo, before);
        EXPECT_GE(TLIBCINFOSetKeyValue("k", value), 0) << name;
        EXPECT_EQ(root.Read(kInfo), after) << name;
    }
}

TEST(Settings, RefusesWhatWouldBreakTheFile) {
    const string tooLong(2 << 20, 'x');
    const char* const rows[][2] = {{"", "v"},      {"a b", "v"},   {"a=b", "v"},
                                   {"#a", "v"},    {"a\n", "v"},   {"a\"", "v"},
                                   {"k", "a\nb"},  {"k", "a\rb"},  {"k", "a\"b"},
                                   {"k", nullptr}, {nullptr, "v"}, {"k", tooLong.c_str()}};
    const TempRoot root;
    root.Write(kInfo, "k=\"old\"\n");
    for (const auto& [key, value] : rows) {
        EXPECT_LT(TLIBCINFOSetKeyValue(key, value), 0) << (key ? key : "NULL");
    }
    EXPECT_EQ(root.Read(kInfo), "k=\"old\"\n");
}

TEST(Settings, KeepsModeOwnerAndLink) {
    const TempRoot root;
    const string real = root.Path("/data/real.conf");
    const uid_t owner = geteuid() == 0 ? 4242 : geteuid();
    root.Write("/data/real.conf", "k=1\n", 0640);
    ASSERT_EQ(chown(real.c_str(), owner, getegid()), 0);
    ASSERT_EQ(symlink(real.c_str(), root.Path(kInfo).c_str()), 0);
    ASSERT_GE(TLIBCINFOSetKeyValue("k", "2"), 0);
    EXPECT_TRUE(fs::is_symlink(root.Path(kInfo)));
    EXPECT_EQ(root.Read("/data/real.conf"), "k=\"2\"\n");
    EXPECT_EQ(Stat(real).st_mode, S_IFREG | 0640U);
    EXPECT_EQ(Stat(real).st_uid, owner);
    fs::remove(real);
    EXPECT_LT(TLIBCINFOSetKeyValue("k", "3"), 0) << "a link that leads nowhere";
    fs::remove(root.Path(kInfo));
    const mode_t mask = umask(077);
    EXPECT_GE(TLIBCINFOSetKeyValue("k", "4"), 0);
    umask(mask);
    EXPECT_EQ(Stat(root.Path(kInfo)).st_mode, S_IFREG | 0644U) << "a new file";
}

TEST(Settings, PlantedLockOrRemainsDoNoHarm) {
    const TempRoot root;
    root.Write("/victim", "k=1\n");
    root.Write(kInfo, "k=1\n");
    ASSERT_EQ(symlink("../victim", root.Path("/etc/.zaroinfo.conf.new").c_str()), 0);
    EXPECT_GE(TLIBCINFOSetKeyValue("k", "2"), 0);
    fs::remove(root.Path("/etc/.zaroinfo.conf.lock"));
    ASSERT_EQ(symlink("../victim", root.Path("/etc/.zaroinfo.conf.lock").c_str()), 0);
    EXPECT_LT(TLIBCINFOSetKeyValue("k", "3"), 0);
    EXPECT_EQ(root.Read("/victim"), "k=1\n");
    EXPECT_EQ(root.Read(kInfo), "k=\"2\"\n");
}

TEST(Settings, WritersDoNotLoseEachOthersKeys) {
    const TempRoot root;
    AtOnce(Words("a b c d"), [](const string& key) {
        for (int i = 1; i <= 25; ++i) {
            TLIBCINFOSetKeyValue((key + std::to_string(i)).c_str(), "v");
        }
    });
    EXPECT_EQ(Count(root.Read(kInfo), "=\"v\"\n"), 100U);
}

TEST(Sections, FindsByValueAndByName) {
    const TempRoot root;
    root.Write("/usr/zaro/etc/portforward.conf",
               "service=early\n[1]\nservice=\"web\" # c\nr_port=8080\n;service=off\n[ 2 ]\n"
               "service=photo\nr_port=90\nr_port=99999999\nvery_long_key=x\n[broken\nservice=lost\n"
               "[toolong8]\nservice=far\n[]\nservice=none\n");
    const string file = TLIBServiceRouterBasepathGet();
    string found; // the section and key of each value, then what is in each section
    for (const string& value : Words("web photo x we early off lost far none 8080")) {
        char at[2][8] = {};
        TLIBCFileGetSectionByValue(file.c_str(), value.c_str(), at[0], 8, at[1], 8);
        found += value + ":" + at[0] + " " + at[1] + ";";
    }
    for (const char* section : {"1", "2", "3", "", "broken"}) {
        for (const char* key : {"service", "r_port"}) {
            char buf[8] = "";
            TLIBCFileGetSectionValue(file.c_str(), section, key, buf, sizeof buf);
            found += string(" ") + buf;
        }
    }
    EXPECT_EQ(found, "web:1 service;photo:2 service;x:2 very_lo;we: ;early: ;off: ;lost: ;far: ;"
                     "none: ;8080:1 r_port; web 8080 photo 9999999      ");
}

TEST(Services, ReadsEveryWholeDefinitionAndSkipsTheOthers) {
    // Name, file, what is read: title, section, key; TCP and UDP ports; the list.
    const char* const rows[][3] = {
        {"web", "title=\"My web\"\nsection=s\nkey=k\ntcp=80\n", "My web s k 1 0 80"},
        {"many", "tcp=\"80, 81\t80\"\nudp=\"0053,81,\"\n", "   2 2 80 81 53"},
        {"none", "title=x\n", "x   0 0"}};
    const TempRoot root;
    for (const auto& [name, text, expected] : rows) {
        root.Write(kServices + name + ".conf", text);
    }
    int broken = 0;
    for (const char* ports : {"0", "65536", "99999999999", "-1", "80x", "80;81", "0x50", "80 -"}) {
        root.Write(kServices + std::to_string(++broken) + ".conf", "tcp=" + string(ports) + "\n");
    }
    for (const char* file : {"-option.conf", "bl ank.conf", "notes.txt", ".conf"}) {
        root.Write(kServices + file, "tcp=80\n");
    }
    fs::create_directory(root.Path(kServices + "folder.conf"));
    ZARO_FW_SERVICE_LIST* list = nullptr;
    ASSERT_EQ(ZAROFwServiceEnum(&list), static_cast<int>(std::size(rows)));
    for (const auto& [name, text, expected] : rows) {
        const ZARO_FW_SERVICE* found = ZAROFWServiceFind(list, name);
        ASSERT_NE(found, nullptr) << name;
        std::ostringstream read;
        read << found->szTitle << ' ' << found->szSection << ' ' << found->szKey << ' '
             << found->nTcp << ' ' << found->nUdp;
        for (int i = 0; const char* port = TLIBCSzListGet(found->pPorts, i); ++i) {
            read << ' ' << port;
        }
        EXPECT_EQ(read.str(), expected) << name;
    }
    ZAROFwServiceFree(list);
    fs::remove_all(root.Path(kServices));
    EXPECT_LE(ZAROFwServiceEnum(&list), 0);
}

const string kSecret = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";

TEST(Token, IsTheKeyedHashOfTheSerial) {
    const TempRoot root;
    root.Write(kKey, "serial=\"TEST0001\"\nsecret=\"" + kSecret + "\"\n", 0644);
    char serial[36] = "";
    char token[33] = "";
    ASSERT_GE(ZAROWstokenGetToken(serial, sizeof serial, token, sizeof token), 0);
    EXPECT_STREQ(serial, "TEST0001");
    EXPECT_STREQ(token, "f60ea141feb5783e379e039111d98404");
    EXPECT_GE(ZAROWstokenGenerateToken("any serial / at all", token, sizeof token), 0);
    EXPECT_STREQ(token, "50a49ebc7c8055f0df77f2a9f17fc54e");
    EXPECT_LT(ZAROWstokenGenerateToken("", token, sizeof token), 0);
    EXPECT_LT(ZAROWstokenGenerateToken("x", token, sizeof token - 1), 0);
    EXPECT_LT(ZAROWstokenGetToken(serial, sizeof "TEST0001" - 1, token, sizeof token), 0);
    EXPECT_STREQ(token, "50a49ebc7c8055f0df77f2a9f17fc54e");
    EXPECT_EQ(Stat(root.Path(kKey)).st_mode, S_IFREG | 0600U) << "others could read it";
}

TEST(Token, DamagedKeyIsNeverReplaced) {
    const string serial = "serial=\"A1\"\n";
    const string secret = "secret=\"" + kSecret + "\"\n";
    const TempRoot root;
    char text[2][36];
    for (const string& damaged :
         {string(), serial, secret, serial + "secret=\"" + kSecret.substr(2) + "\"\n",
          serial + "secret=\"g" + kSecret.substr(1) + "\"\n", serial + "secret=" + kSecret + "00\n",
          "serial=\"a1\"\n" + secret, "serial=\"A 1\"\n" + secret,
          "serial=\"" + string(36, 'A') + "\"\n" + secret, serial + secret + string(8192, '#')}) {
        root.Write(kKey, damaged, 0600);
        EXPECT_LT(ZAROWstokenGetToken(text[0], 36, text[1], 36), 0) << damaged;
        EXPECT_EQ(root.Read(kKey), damaged);
    }
    root.Write("/elsewhere", serial + secret, 0600);
    fs::remove(root.Path(kKey));
    ASSERT_EQ(symlink(root.Path("/elsewhere").c_str(), root.Path(kKey).c_str()), 0);
    EXPECT_LT(ZAROWstokenGetToken(text[0], 36, text[1], 36), 0) << "a link";
}

TEST(Token, ProcessesAtOnceEndWithOneIdentity) {
    const TempRoot root;
    const mode_t mask = umask(0);
    for (size_t round = 1; round <= 10; ++round) {
        fs::remove(root.Path(kKey));
        AtOnce(Words("a b c d e f"), [&](const string&) {
            char text[2][36] = {};
            ZAROWstokenGetToken(text[0], 36, text[1], 36);
            std::ofstream(root.Path("/serials"), std::ios::app) << text[0] << '\n';
        });
        const auto serials = Words(root.Read("/serials"));
        EXPECT_EQ(serials.size(), 6 * round) << "every process gets the identity";
        EXPECT_EQ(std::set<string>(serials.begin(), serials.end()).size(), round) << "one a round";
    }
    umask(mask);
    EXPECT_EQ(Stat(root.Path(kKey)).st_mode, S_IFREG | 0600U);
    EXPECT_EQ(Stat(root.Path(kKey)).st_nlink, 1U) << "a second name of the key was left";
}

TEST(Network, Eth0StandsForTheFirstPort) {
    // Name, ports ('*' in front: a real device), settings, the port that stands for eth0.
    const std::tuple<const char*, std::vector<const char*>, const char*, string> rows[] = {
        {"eth0 itself", {"*eth0", "*ena"}, "nic=ena\n", "eth0"},
        {"named", {"*ena", "br0"}, "nic=br0\n", "br0"},
        {"named but gone: nothing else", {"*ena"}, "nic=enb\n", ""},
        {"name that is a path", {"*ena"}, "nic=ena/../ena\n", ""},
        {"first real one", {"*enb", "*ena", "aaa", "route0"}, "", "ena"},
        {"default route where none is real", {"aaa", "route0"}, "", "route0"},
        {"none", {"aaa"}, "", ""}};
    for (const auto& [name, ports, info, expected] : rows) {
        const TempRoot root;
        root.Write(kInfo, info);
        root.Write("/proc/net/route", "\nroute0 00000000 010200C0 0003 0 0 0 00000000\n");
        for (const char* port : ports) {
            const string folder = "/sys/class/net/" + string(port + (*port == '*'));
            root.Write(folder + "/address", "02:00:00:00:00:01\n");
            if (*port == '*') {
                root.Write(folder + "/device", "");
            }
        }
        struct _tag_TLIB_NETIF record {};
        EXPECT_EQ(ZARONetIFGetInfo("eth0", &record, 0) >= 0, !expected.empty()) << name;
        EXPECT_EQ(record.szName, expected) << name;
        EXPECT_EQ(record.rgMac[5], expected.empty() ? 0 : 1) << name;
    }
}

TEST(Network, ListsInterfacesWithTheRootsHardwareAddresses) {
    const TempRoot root;
    struct _tag_TLIB_NETIF records[32] = {};
    const int count = TLIBNetGetInterfaceInfo(records, 32, 2);
    if (count < 0) {
        GTEST_SKIP() << "this machine has no address beside the loopback";
    }
    const auto& mac = records[0].rgMac;
    EXPECT_EQ(std::count(mac, mac + 6, 0), 6) << "the machine's own, not the root's";
    root.Write("/sys/class/net/" + string(records[0].szName) + "/address", "02:00:00:00:00:07\n");
    ASSERT_EQ(TLIBNetGetInterfaceInfo(records, 32, 2), count);
    EXPECT_EQ(string(mac, mac + 6), string("\2\0\0\0\0\7", 6));
    std::set<string> names;
    for (int i = 0; i < count; ++i) {
        EXPECT_TRUE(names.insert(records[i].szName).second) << records[i].szName;
        EXPECT_NE(inet_addr(records[i].szIp) & 0xff, 127U) << records[i].szIp;
        EXPECT_NE(inet_addr(records[i].szIp), INADDR_NONE) << records[i].szIp;
        EXPECT_EQ(string(records[i].szMask).rfind("255.", 0), 0U) << records[i].szMask;
    }
    EXPECT_EQ(TLIBNetGetInterfaceInfo(records, 1, 2), 1);
    EXPECT_LE(TLIBNetGetInterfaceInfo(records, 0, 2), 0);
}

TEST(Exec, TellsStatusFromFailure) {
    const std::tuple<const char*, const char*, const char*, int> rows[] = {
        {"success", "/bin/sh", "test \"$1 $2\" = 'a b c'", 0},
        {"status", "/bin/sh", "exit 127", 127},
        {"missing", "/nowhere/sh", "", -1},
        {"ignored signal has its effect again", "/bin/sh", "kill -TERM $$; exit 0", -1},
        {"blocked signal has its effect again", "/bin/sh", "kill -USR1 $$; exit 0", -1}};
    sigset_t set, before;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    sigprocmask(SIG_BLOCK, &set, &before);
    const auto handler = signal(SIGTERM, SIG_IGN);
    for (const auto& [name, program, script, result] : rows) {
        EXPECT_EQ(TLIBCExec(program, "-c", script, "sh", "a b", "c", nullptr), result) << name;
    }
    signal(SIGTERM, handler);
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

} // namespace
