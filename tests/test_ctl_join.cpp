#include "base/invitation_code.h"
#include "hub/secret.h"
#include "hub/store.h"
#include "tests/support/ctl.h"
#include "tests/support/http_server.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;
using ZARO::RelayHub::Store;

static const std::string kCode = ZARO::CompleteInvitation("7K3FQ2MX91T");

struct Join : Ctl {
    Join() { hubs_.Open(listed_.Data() + "/hub.db", error_); }

    /// A device that has nothing yet, as after its installation.
    void MakeNew() {
        for (const char* file :
             {Device::kConfig, "/usr/zaro/etc/ssh/config", "/usr/zaro/etc/services.d/web.conf"}) {
            fs::remove(root_.Path(file));
        }
        root_.Write("/etc/zaroinfo.conf", "nic=eth0 # the only one\n");
    }

    /// Every file that a join may change: its name, mode and text.
    std::vector<std::string> Files() const {
        std::vector<std::string> files;
        for (const char* folder : {"/etc", "/usr/zaro/etc"}) {
            for (const auto& entry : fs::recursive_directory_iterator(root_.Path(folder))) {
                const std::string name = entry.path();
                const bool stays =
                    Count(name, ".lock") + Count(name, "device.key") + Count(name, "known_hosts") >
                    0;
                if (entry.is_regular_file() && !stays) {
                    const auto mode = static_cast<int>(entry.status().permissions());
                    files.push_back(name + " " + std::to_string(mode) + " " + ReadFile(name));
                }
            }
        }
        std::sort(files.begin(), files.end());
        return files;
    }

    static std::string Url(const HubProcess& of) {
        return "https://127.0.0.1:" + std::to_string(of.HttpsPort());
    }
    std::string Serial() const {
        const std::string key = root_.Read("/usr/zaro/etc/device.key");
        return key.substr(8, key.find('"', 8) - 8);
    }
    void Invite(const std::string& code) {
        ZARO::RelayHub::NewInvitation invitation;
        invitation.hash = ZARO::RelayHub::Sha256(code);
        ASSERT_EQ(hubs_.admission.Invite(invitation), ZARO::RelayHub::StoreResult::Done);
    }
    /// As the operator does; waits until the device has asked.
    bool Admit() {
        ZARO::RelayHub::AdmitResult result{};
        return WaitFor([&] {
            return hubs_.admission.Admit(Serial(), "", result) == ZARO::RelayHub::StoreResult::Done;
        });
    }
    Result RunMarked(const std::string& words) const { return Run(words, Marked()); }
    /// Starts a command whose daemon belongs to the device.
    std::string Marked() const { return "env " + device.Mark() + " " + kProgram; }
    bool IsRunning() const { return Run("status").code == 0; }

    HubProcess listed_{600, "--admit listed"};
    Store hubs_; ///< what the second hub knows
    std::string error_;
};

/// A hub that says of itself what it is told, and answers every batch in one way.
struct FakeHub : HttpServer {
    explicit FakeHub(const std::string& reply, std::string document = "")
        : HttpServer([=](const httplib::Request& q, httplib::Response& r) {
              const std::string port = std::to_string(q.local_port);
              const std::string good = R"({"hub":"zarorelay","protocol":1,"control":{"protocol":)"
                                       R"("http","host":"127.0.0.1","port":)" +
                                       port + "}}";
              const bool asks = q.method == "GET";
              r.status = asks && document == "404" ? 404 : 200;
              r.set_content(!asks ? reply : document.empty() ? good : document, "text/plain");
          }) {}
    std::string Join() const { return "join " + Url(""); }
};

TEST_F(Join, ANewDeviceIsDoneInTwoCommandsAndLeavesAsItCame) {
    MakeNew();
    const auto before = Files();
    Invite(kCode);
    const Result joined = RunMarked("join " + Url(listed_) + "/ 7k3f-q2mx-91t" + kCode.back());
    EXPECT_EQ(joined.out, "Connected to 127.0.0.1 as 044756784.\n") << joined.err;
    EXPECT_EQ(root_.Read("/usr/zaro/etc/ssh/config"),
              "Port " + std::to_string(listed_.RelayPort()) + "\n");
    EXPECT_THAT(root_.Read("/etc/zaroinfo.conf"), StartsWith("nic=eth0 # the only one\n"));
    EXPECT_EQ(fs::status(root_.Path("/usr/zaro/etc/zarorelayd.joined")).permissions(),
              fs::perms(0600));

    const auto defined = Files();
    const std::string port = std::to_string(web.Port());
    for (const char* title : {"Photos: mine #1", "Other"}) { // the second one changes the title
        const Result open = Run("publish --title '" + std::string(title) + "' " + port);
        EXPECT_THAT(open.out, StartsWith(title + std::string(" is open at http://127.0.0.1:")));
        EXPECT_EQ(Greeting(device.RelayPort("photos-mine-1")), "web") << open.err;
    }
    EXPECT_EQ(Run("unpublish " + port).code, 0);
    EXPECT_EQ(ReadConfig()["service"].size(), 0U);
    EXPECT_FALSE(fs::exists(root_.Path("/usr/zaro/etc/services.d/photos-mine-1.conf")));

    const std::string left = "Left " + Url(listed_) + "; the relay is switched off.\n";
    EXPECT_EQ(Run("leave").out, left);
    EXPECT_EQ(Files().size(), before.size() + 1) << "the empty list of services stays";
    EXPECT_FALSE(IsRunning());
    Fails("leave", 1, "has not joined a hub");
}

TEST_F(Join, FailsInOneLineAndChangesNothing) {
    const FakeHub stranger("", "404"), text("", "<html>"), other("", R"({"hub":"x"})"),
        newer("", R"({"hub":"zarorelay","protocol":2})"),
        evil("", R"({"hub":"zarorelay","protocol":1,"control":{"protocol":"http",)"
                 R"("host":"a b","port":1}})");
    const HttpServer elsewhere("", 200, "elsewhere");
    const std::string plain =
        "https" + Url(listed_).substr(5, 13) + std::to_string(listed_.HttpPort());
    const std::tuple<std::string, int, const char*> kCases[] = {
        {"join relay.example.org", 2, "can't be a hub's address"},
        {"join ftp://127.0.0.1", 2, "can't be a hub's address"},
        {"join https://127.0.0.1:0", 2, "can't be a hub's address"},
        {"join https://me@127.0.0.1", 2, "can't be a hub's address"},
        {"join https://127.0.0.1/page", 2, "can't be a hub's address"},
        {"join https://127.0.0.1 7K3F-Q2MX-91T7", 2, "mistyped"},
        {"join http://no-such.invalid", 2, "no-such.invalid"},
        {"join http://127.0.0.1:1", 2, "Connection refused"},
        {"join " + plain, 2, "8443"},
        {"join " + elsewhere.Url(""), 2, "certificate"},
        {stranger.Join(), 2, "/.well-known/zarorelay answered with status 404"},
        {text.Join(), 2, "is not the page of a hub"},
        {other.Join(), 2, "is not the page of a hub"},
        {newer.Join(), 2, "generation"},
        {evil.Join(), 2, "names servers that can't be right"},
        {"join --wait 0 " + Url(listed_), 11, "zarorelay-hubctl admit "},
        {"join " + Url(listed_) + " " + kCode, 2, "does not know this code"},
        {"leave", 1, "has not joined"}};
    const auto before = Files();
    for (const auto& [words, code, line] : kCases) {
        EXPECT_EQ(Fails(words, code, line), "");
        EXPECT_EQ(Files(), before) << words;
    }
}

TEST_F(Join, SaysWhyTheHubRefuses) {
    const std::tuple<std::string, int, const char*> kReplies[] = {
        {R"({"errno":2,"state":"refused","reason":"code_expired"})", 2, "zarorelay-hubctl invite"},
        {R"({"errno":2,"state":"refused","reason":"code_used"})", 2, "used up"},
        {R"({"errno":2,"state":"refused","reason":"token"})", 2, "zarorelay-hubctl forget "},
        {R"({"errno":2,"state":"refused","reason":"server_id"})", 2, "hardware address"},
        {R"({"errno":2,"state":"refused","reason":"banned"})", 2, "zarorelay-hubctl admit "},
        {R"({"errno":2,"state":"refused","reason":"\u001b[31m"})", 2, "refused this device: ?[31m"},
        {R"({"errno":11,"state":"busy","retry_after":90})", 11, "try again in 1 min"},
        {R"({"errno":2,"state":"pending","retry_after":1e9})", 11, "not admitted"},
        {R"({"errno":1})", 11, "can't answer for now"},
        {R"({"errno":3})", 2, "as new as the hub"},
        {R"({"errno":0})", 2, "as new as the hub"},
        {"", 2, "does not answer as a hub"}};
    const auto before = Files();
    for (const auto& [reply, code, line] : kReplies) {
        const FakeHub unkind("[" + reply + "]");
        const Result result = Run(unkind.Join() + " --wait 1 " + kCode);
        EXPECT_EQ(result.code, code) << reply;
        EXPECT_THAT(result.err, AllOf(MatchesRegex("zarorelayctl: warning: [^\n]*http[^\n]*\n"
                                                   "zarorelayctl: [^\n]*\n"),
                                      HasSubstr(line), Not(HasSubstr(kCode))));
        EXPECT_EQ(Files(), before) << reply;
    }
}

TEST_F(Join, WaitsForTheOperatorAndShowsNoCode) {
    MakeNew();
    const auto before = Files();
    const auto join = Start(root_, "join " + Url(listed_), Marked());
    ASSERT_TRUE(WaitFor([&] { return Count(root_.Read("/ctl.out"), "hubctl admit ") == 1; }));
    EXPECT_THAT(root_.Read("/ctl.out"), HasSubstr("admit " + Serial() + "\n"));
    EXPECT_EQ(Files(), before);
    Fails("leave", 11, "another join or leave"); // it would change what the join looks at
    EXPECT_TRUE(Admit());
    EXPECT_EQ(join->Wait(seconds(30)), 0) << root_.Read("/ctl.err");
    EXPECT_TRUE(IsRunning());

    const FakeHub waits(R"([{"errno":2,"state":"pending"}])");
    const auto waiting = Start(root_, waits.Join() + " " + kCode, kProgram, "other.out");
    ASSERT_TRUE(WaitFor([&] { return !waits.Requests().empty(); }));
    EXPECT_EQ(Count(ReadFile("/proc/" + std::to_string(waiting->Pid()) + "/cmdline"), kCode), 0U);
}

/// A daemon that is not admitted yet asks as often as the hub wants, and says what helps.
TEST_F(Join, ADaemonIsUpSoonAfterTheOperatorAdmitsIt) {
    device.UseServer("https", listed_.HttpsPort());
    device.UseRelay(listed_.RelayPort());
    device.Start();
    ASSERT_TRUE(WaitFor([&] { return device.Status()["error"] == 8; }));
    EXPECT_THAT(Run("status").out, HasSubstr("zarorelay-hubctl admit " + Serial()));
    EXPECT_THAT(Run("check").out, HasSubstr("zarorelay-hubctl admit " + Serial()));
    EXPECT_EQ(listed_.Count("errno 2"), 1U) << "it has waited since";
    EXPECT_TRUE(Admit());
    EXPECT_TRUE(Takes("from admission to visitors", seconds(15),
                      [&] { return device.IsAllUp() && device.Serves(web); }));
}

/// Broken off while the daemon tries to connect: by Ctrl-C, and by a kill that another command has
/// to mend.
TEST_F(Join, WhatIsBrokenOffIsUndone) {
    const FakeHub deaf(R"([{"errno":0,"state":"admitted"}])");
    const std::tuple<bool, int, std::string> kCases[] = {
        {false, SIGINT, ""},
        {true, SIGINT, ""},
        {false, SIGKILL, "leave"},
        {true, SIGKILL, "leave"},
        {true, SIGKILL, "join http://127.0.0.1:1"}};
    for (const auto& [runs, signal, mend] : kCases) {
        SCOPED_TRACE(std::to_string(signal) + mend + (runs ? " beside a daemon" : ""));
        MakeNew();
        WriteConfig();
        device.Define(web.Name(), web.Port());
        if (runs) {
            root_.Write("/etc/zaroinfo.conf", "runrelayd = yes\n");
            device.UseRelay(hub.RelayPort(), "Host x\n  Port 7\n");
            ASSERT_EQ(RunMarked("start").code, 0);
            ASSERT_TRUE(WaitFor([&] { return device.IsAllUp(); }));
        }
        const auto before = Files();
        const std::size_t asked = deaf.Requests().size();
        const auto join = Start(root_, deaf.Join(), Marked());
        // The page, the join, and the daemon's registration.
        ASSERT_TRUE(WaitFor([&] { return deaf.Requests().size() >= asked + 3; }));
        EXPECT_NE(ReadConfig()["server_control"], config_["server_control"]);
        join->Signal(signal);
        EXPECT_EQ(join->Wait(seconds(30)), signal == SIGINT ? 2 : 128 + SIGKILL);
        if (!mend.empty()) {
            (void)RunMarked(mend);
        }
        // A daemon that is back writes its server id, the same, once more.
        EXPECT_TRUE(WaitFor([&] { return Files() == before; })) << testing::PrintToString(Files());
        EXPECT_EQ(IsRunning(), runs);
        EXPECT_TRUE(!runs || WaitFor([&] { return device.Serves(web); }));
        (void)Run("stop");
    }
}

TEST_F(Join, GoesBackToTheFormerHubAndKeepsOtherChanges) {
    const std::string ssh = "# mine\nport=" + std::to_string(hub.RelayPort()) + "\n";
    const std::string rest = "Host x\n  Port 7\n";
    root_.Write("/usr/zaro/etc/ssh/config", ssh + rest);
    ASSERT_EQ(RunMarked("start").code, 0);
    ASSERT_TRUE(WaitFor([&] { return device.IsAllUp(); }));
    Invite(kCode);
    root_.Write("/code", kCode + "\n");
    for (const char* round : {"the first", "again: the oldest state counts"}) {
        const Result joined = RunMarked("join " + Url(listed_) + " - <code");
        EXPECT_EQ(joined.code, 0) << round << joined.err;
        EXPECT_TRUE(WaitFor([&] { return device.IsAllUp() && device.Serves(web); })) << round;
        EXPECT_GT(listed_.Registrations(), 0U);
    }
    EXPECT_EQ(root_.Read("/usr/zaro/etc/ssh/config"),
              "# mine\nPort " + std::to_string(listed_.RelayPort()) + "\n" + rest);
    EXPECT_EQ(Run("alias set kept").code, 0);
    EXPECT_EQ(Run("leave").code, 0);
    EXPECT_TRUE(WaitFor([&] { return device.IsAllUp() && device.Serves(web); }));
    EXPECT_EQ(ReadConfig()["server_alias"], Parse(R"({"alias":"kept"})"));
    Json::Value other = ReadConfig();
    other.removeMember("server_alias");
    EXPECT_EQ(other, config_);
    EXPECT_EQ(root_.Read("/usr/zaro/etc/ssh/config"), ssh + rest);
    EXPECT_EQ(Run("stop").code, 0);
}

TEST_F(Join, PublishRefusesWhatItCanNotPublish) {
    const std::string port = std::to_string(web.Port());
    const auto refuses = [&](const std::string& words, const char* text) {
        const auto before = Files();
        EXPECT_EQ(Fails(words, 2, text), "");
        EXPECT_EQ(Files(), before) << words;
    };
    refuses("publish 8080", "zarorelayctl start");
    root_.Write("/etc/zaroinfo.conf", "");
    ASSERT_EQ(RunMarked("start").code, 0);
    refuses("publish 8080", "switched off; join a hub");
    ASSERT_EQ(Run("enable").code, 0);
    ASSERT_TRUE(WaitFor([&] { return device.IsAllUp(); }));
    root_.Write("/usr/zaro/etc/services.d/taken.conf", "tcp=1,2\n");
    const std::pair<std::string, const char*> kCases[] = {
        {"publish 0", "is no port"},
        {"publish 65536", "is no port"},
        {"publish 99999999999999999999", "is no port"},
        {"publish ../x", "expected one of: photos, web"},
        {"publish ftp", "with one port"},
        {"publish 8080 --title 'a\"b'", "can't be a title"},
        {"publish 8080 --title 'a\nb'", "can't be a title"},
        {"publish 8080 --title " + std::string(128, 'a'), "can't be a title"},
        {"publish 8080 --id ../x", "can't be a service's id"},
        {"publish 8080 --id _x", "can't be a service's id"}, // the platform would not read it
        {"publish 8080 --id taken", "another service \"taken\""},
        {"publish 8080 --id gallery_http", "another service"},
        {"publish " + port + " --id mine", "is the service \"web\" already"},
        {"publish web --title Mine", "title of its own"},
        {"unpublish 8080", "defined or published"},
        {"unpublish nix", "defined or published"}};
    for (const auto& [words, text] : kCases) {
        refuses(words, text);
    }
    const std::string config = root_.Read(Device::kConfig);
    Json::Value own = ReadConfig(); // its port is in the configuration, so it has no definition
    own["service"].append(Parse(R"({"id":"own","port":9})"));
    root_.Write(Device::kConfig, Compact(own));
    refuses("publish 8080 --id own", "another service \"own\"");
    root_.Write(Device::kConfig, config);
    // A hand-written definition is used and stays; a name that is taken gets the port added.
    EXPECT_THAT(Run("publish web").out, StartsWith("web is open at http://127.0.0.1:"));
    const std::string dead = std::to_string(Listener(0).port);
    const Result silent = Run("publish " + dead + " --title Taken");
    EXPECT_THAT(silent.out, StartsWith("Taken is open at "));
    EXPECT_THAT(silent.err, HasSubstr("warning: nothing answers on port " + dead));
    EXPECT_THAT(ReadConfig()["service"][1]["id"].asString(), "taken-" + dead);
    EXPECT_EQ(Run("unpublish web").code + Run("unpublish " + dead).code, 0);
    EXPECT_TRUE(ReadConfig()["service"].empty());
    EXPECT_TRUE(fs::exists(root_.Path("/usr/zaro/etc/services.d/web.conf")));
    EXPECT_FALSE(fs::exists(root_.Path("/usr/zaro/etc/services.d/taken-" + dead + ".conf")));
    EXPECT_EQ(Run("stop").code, 0);
}
