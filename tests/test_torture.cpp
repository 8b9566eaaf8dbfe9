// Every call that can fail fails once, at its first, second, ... use within an operation. Checks
// what the operation returns and logs, that it leaves the old files or the new ones and nothing
// else, that it leaks no descriptor and no handle, and that it works when it is repeated.
#include <sys/file.h>

#include <map>

#include <boost/algorithm/string/replace.hpp>

#include <zaro/platform.h>
#include <zarorelayd/file_lock.h>
#include <zarorelayd/jobqueue.h>
#include <zarorelayd/tunnel.h>
#include <zarorelayd/zarorelayd.h>

#include "app/daemon/status_file.h"
#include "tests/support/http_server.h"
#include "tests/support/process.h"
#include "tests/support/scripted_ssh.h"
#include "tests/support/unit.h"

using namespace ZARO::Relay;

namespace {

/// The call that is to fail. Thread-local: in the web server's threads no call fails.
struct Fault {
    std::string seam;
    int at = 0, error = 0, calls = 0;
};
thread_local Fault gFault;
int gHandles = 0; ///< libcurl's, not yet cleaned up

template <class Works, class Fails> long Call(const char* seam, Works works, Fails fails) {
    if (gFault.seam != seam || ++gFault.calls != gFault.at) {
        return works();
    }
    const long result = fails();
    errno = gFault.error;
    return result;
}

long Counted(long handle) {
    gHandles += handle != 0;
    return handle;
}

} // namespace

// The linker redirects the library's calls to here, as the test is linked with its objects. All
// arguments are passed on in registers; on 64-bit Linux this works for every function of up to six
// integers and pointers.
// clang-format off
#define WRAP(name, works, fails)                                                                   \
    long __real_##name(long, long, long, long, long, long);                                        \
    long __wrap_##name(long a, long b, long c, long d, long e, long f) {                           \
        (void)(a | b | c | d | e | f); /* not all are for all */                                   \
        return Call(#name, [=]() -> long { return works; }, [=]() -> long { return fails; });      \
    }
#define REAL(name) __real_##name(a, b, c, d, e, f)
#define MINUS(name) WRAP(name, REAL(name), -1)
#define ZERO(name) WRAP(name, REAL(name), 0)
#define LATE(name, result) WRAP(name, REAL(name), gFault.error == EINTR ? -1 : (REAL(name), result))
#define CURL(name) WRAP(name, REAL(name), CURLE_OUT_OF_MEMORY)
#define MADE(name) WRAP(name, Counted(REAL(name)), 0)
#define GONE(name, failed) WRAP(name, (gHandles -= a != 0, REAL(name)), failed)
extern "C" {
MINUS(fstat) MINUS(stat) MINUS(lstat) MINUS(fchmod) MINUS(rename) MINUS(unlink) MINUS(link)
MINUS(flock) MINUS(dup2) MINUS(read) MINUS(time) MINUS(fork) MINUS(open)
ZERO(realpath) ZERO(popen) LATE(close, -1) LATE(pclose, -1) LATE(waitpid, -1)
WRAP(write, REAL(write), gFault.error != 0 ? -1 : __real_write(a, b, (c + 1) / 2, d, e, f))
MINUS(TLIBCFileGetKeyValue) MINUS(TLIBCINFOSetKeyValue) MINUS(TLIBCFileGetSectionByValue)
MINUS(TLIBCFileGetSectionValue) MINUS(ZARONetIFGetInfo) MINUS(ZARONetDefaultGatewayGet)
MINUS(ZARODDNSConfigGet) MINUS(ZAROWstokenGetToken) MINUS(ZAROWstokenGenerateToken)
MINUS(TLIBCExec) MINUS(ZAROHAGetMacDL) ZERO(TLIBCSupportGet) ZERO(TLIBCSzListGet) ZERO(ZAROFWServiceFind)
LATE(ZAROFwServiceEnum, 0)
CURL(curl_global_init) CURL(curl_easy_perform) CURL(curl_easy_setopt) CURL(curl_easy_getinfo)
CURL(curl_share_setopt) CURL(curl_multi_add_handle) CURL(curl_multi_remove_handle)
CURL(curl_multi_fdset) CURL(curl_multi_perform) MADE(curl_easy_init) MADE(curl_easy_duphandle) MADE(curl_multi_init)
MADE(curl_share_init) GONE(curl_easy_cleanup, 0) GONE(curl_multi_cleanup, 0)
GONE(curl_share_cleanup, CURLSHE_IN_USE)
// Fixed results, where the real ones differ from machine to machine or take time.
WRAP(fsync, 0, -1)
WRAP(getentropy, (memset(reinterpret_cast<void*>(a), 7, static_cast<std::size_t>(b)), 0), -1)
WRAP(TLIBCErrGet, 0x1234, 0) WRAP(ZAROPPPoECheckStatusEx, 1, -1) WRAP(ZAROPPPoeNetInfoGet, 0, -1)
WRAP(TLIBNetGetInterfaceInfo, (*reinterpret_cast<_tag_TLIB_NETIF*>(a) = {"eth0", "", "", 2, {}}, 1),
     0)
int __wrap___open_2(const char* path, int flags) { // a fortified build calls it for some opens
    return static_cast<int>(__wrap_open(reinterpret_cast<long>(path), flags, 0, 0, 0, 0));
}
} // extern "C"

namespace {

const std::string kConf = "/usr/zaro/etc/zarorelayd.conf", kCluster = "/usr/zaro/etc/ha.conf";

/// What the operations work on. Made before each of them, so that making it is not tested.
struct Scene {
    explicit Scene(const HttpServer& web) : url(web.Url()) {
        const std::pair<const std::string, const char*> files[] = {
            {kConf, "{\"log_level\":5,\"x\":1}"},
            {"/etc/x", "old"}, {"/tmp/a", ""},
            {"/etc/zaroinfo.conf", "supportddns=yes\nddns_update=yes\nddns_select=dyn\n"},
            {"/proc/net/route", "head\neth0 00000000 0100000A 0003 0 0 0 00000000 0 0 0\n"},
            {"/sys/class/net/eth0/address", "02:00:00:aa:bb:01\n"},
            {"/usr/zaro/etc/ddns.conf", "[dyn]\nhostname=me\n"},
            {"/usr/zaro/etc/services.d/web.conf", "title=T\ntcp=80\n"},
            {"/usr/zaro/etc/portforward.conf", "[r1]\nservice=web\nr_port=8000\n"}};
        for (const auto& [name, text] : files) {
            root.Write(name, text, 0640);
        }
        conf = std::make_unique<RelaydConf>(root.Path(kConf).c_str());
        conf->serverID = "9";
        EXPECT_TRUE(conf->SetEnableConf(false)); // its lock file stays
        status->Write("old");
        Request::SetCookie("a=b");
        Renew();
    }

    /// A new request with a share and a connection of its own.
    Request& Renew() {
        request.reset();
        Request::GetCurlShare(true);
        request = std::make_unique<Request>(url.c_str(), "body", true);
        return *request;
    }

    const TempRoot root;
    const std::string url, x = root.Path("/etc/x"), a = root.Path("/tmp/a");
    std::unique_ptr<app::StatusFile> status = std::make_unique<app::StatusFile>();
    std::unique_ptr<RelaydConf> conf;
    std::unique_ptr<Request> request;
};

std::string Sent(Request&& request) {
    return Signs({request.IsValid(), request.Send()});
}

std::string OpenTunnel(Scene& scene) {
    const ScriptedSsh ssh(scene.root);
    Tunnel tunnel(Parse(R"({"id":"web","port":80,"relay_ip":"r","relay_port":9,"relay_user":"u",
                            "relay_pass":"p"})"));
    const bool good = tunnel.Create();
    gFault.seam.clear();
    return Signs({good}) + tunnel.GetStatusStr(tunnel.GetStatus());
}

int gDone = 0;

bool Note(boost::shared_ptr<Request>) {
    return ++gDone > 0;
}

/// Runs one job to its end, removes another, and sweeps a third one away.
std::string RunJobs(Scene& scene) {
    JobQueue queue;
    fd_set none = {};
    int max = gDone = 0;
    const auto add = [&] {
        const boost::shared_ptr<Request> request(new Request(scene.url.c_str(), "", true));
        return queue.Add(request, Note, 0);
    };
    const auto ends = [&] { return queue.CheckDoneJobs() && gDone > 0; };
    return Signs({queue.IsValid(), add() && WaitFor(ends),
                  add() && queue.GetFdSet(&none, &none, &none, &max), queue.Remove(Note),
                  add() && queue.RemoveAll()});
}

// clang-format off
#define OPERATION(name, healthy, ...) \
    {name, {healthy, []([[maybe_unused]] Scene& s) -> std::string { return __VA_ARGS__; }}}
const std::map<std::string, std::pair<const char*, std::string (*)(Scene&)>> kOperations = {
    OPERATION("json", "+ new", Signs({RelaydConf::WriteJsonFile(s.x, 1)})),
    OPERATION("id", "++ new", (s.conf->serverIdCleared = true,
                              Signs({s.conf->WriteServerId(""), !s.conf->serverIdCleared}))),
    OPERATION("alias", "+ new", Signs({s.conf->WriteAliasName("", "n")})),
    OPERATION("whole", "+ new", Signs({s.conf->WriteConfigFile()})),
    OPERATION("log", "+ new", Signs({TLIBRelaydLogStart("/log") == 0})),
    OPERATION("enable", "+ new", Signs({s.conf->SetEnableConf(true)})),
    OPERATION("status", " new", (s.status->Write("new"), "")),
    OPERATION("token", "+ new", Signs({AuthConf(false).Overwrite(Parse(R"({"serial":"s"})"))})),
    OPERATION("pass", "+ new",
              Signs({Tunnel(Parse(R"({"relay_pass":"pp"})")).WritePassFile(s.x + "p")})),
    OPERATION("tunnel", "+TUNNEL_STATUS_READY", OpenTunnel(s)),
    OPERATION("lock", "+", Signs({FileLock(s.a.c_str()).Lock(LOCK_EX)})),
    OPERATION("logfile", "++", Signs({Daemon::OpenLogFile(s.a, 99, O_APPEND), close(99) == 0})),
    OPERATION("network", R"({"ddns":"me","gateway":"10.0.0.1","interface":[{"ip":"","mask":"",)"
              R"("name":"eth0"},{"ip":"","mask":"","name":"pppoe"}],"mode":""})",
              Written(NetworkConf(true), true)),
    OPERATION("service", R"({"ext_port":8000,"id":"web","name":"T","port":80})",
              Written(ServiceConf("web"), true)),
    OPERATION("cluster", "+ new",
              (s.root.Write(kCluster, "running=yes\nmac=02:00:00:aa:bb:01\n"),
               Signs({AuthConf(true).IsValid()}))),
    OPERATION("auth", "+ new", Signs({AuthConf(true).IsValid()})),
    OPERATION("send", "++", Sent(std::move(s.Renew()))),
    OPERATION("copy", "++", Sent(Request(*s.request))),
    OPERATION("poll", "+", Signs({s.request->SetTcpKeepAlive(9)})),
    OPERATION("jobs", "+++++", RunJobs(s))};
// clang-format on

using Files = std::map<std::string, std::string>;

/// The permissions and contents of all files that an operation may touch.
Files FilesOf(const TempRoot& root) {
    Files files;
    for (const char* folder : {"/etc", "/tmp", "/usr/zaro/etc"}) {
        for (const auto& entry : fs::recursive_directory_iterator(root.Path(folder))) {
            const std::string name = entry.path().string().substr(root.Dir().size());
            const auto mode = static_cast<unsigned>(entry.status().permissions());
            files[name] = std::to_string(mode) + (entry.is_regular_file() ? root.Read(name) : "");
        }
    }
    return files;
}

/// How many descriptors are open, except the web server's.
long Descriptors() {
    long count = 0;
    struct stat info = {};
    for (int fd = 0; fd < 100; fd++) {
        count += fstat(fd, &info) == 0 && !S_ISSOCK(info.st_mode);
    }
    return count;
}

struct TortureTest : testing::Test {
    void Use(const std::string& name) {
        Scene scene(web_);
        name_ = name;
        before_ = FilesOf(scene.root);
        Run(scene);
        after_ = FilesOf(scene.root);
    }

    /// Runs the operation; returns its result, which files it left, and its log.
    std::string Run(Scene& scene, const Fault& fault = {}) {
        std::string text;
        const auto log = LogOf("", name_ == "network" ? 7 : 3, [&] {
            gFault = fault;
            text = kOperations.at(name_).second(scene);
            gFault.seam.clear();
        });
        const Files now = FilesOf(scene.root);
        const bool changes = after_ != before_;
        text += now == after_               ? (changes ? " new" : "")
                : changes && now == before_ ? " old"
                                            : " odd";
        for (const std::string& line : log) {
            // One text begins with a line number.
            text += (&line == &log[0] ? ": " : "; ") +
                    line.substr(line.find_first_not_of("0123456789"));
        }
        boost::replace_all(text, scene.url, "URL");
        boost::replace_all(text, scene.root.Dir(), "");
        boost::replace_all(text, ".tmp." + std::to_string(getpid()), ".tmp.PID");
        return text;
    }

    /// Fails each call of `seam` in turn.
    void Torture(const std::string& seam, int error, const std::vector<std::string>& row) {
        const std::string healthy = kOperations.at(name_).first;
        std::size_t n = 0;
        for (bool reached = true; reached;) {
            Scene scene(web_);
            const long descriptors = Descriptors(), handles = gHandles;
            const std::string outcome = Run(scene, {seam, static_cast<int>(++n), error, 0});
            reached = gFault.calls >= gFault.at;
            const std::string when = name_ + ", " + seam + " " + std::to_string(n);
            // A file that could not be removed may stay while this process lives.
            const bool stays = name_ == "token" && outcome == "+ odd";
            EXPECT_EQ(outcome, n + 1 < row.size() ? row[n + 1] : healthy) << when;
            EXPECT_EQ(Run(scene), stays ? outcome : healthy) << when;
            EXPECT_EQ(Descriptors(), descriptors) << when;
            EXPECT_EQ(gHandles, handles) << when;
        }
        EXPECT_GE(n, std::max<std::size_t>(row.size() - 1, 2)) << name_ << " calls " << seam;
    }

    const HttpServer web_{"ok", 200, "127.0.0.1"};
    std::string name_;
    Files before_, after_;
};

} // namespace

// The rows are in torture.txt.
TEST_F(TortureTest, EveryCallFailsOnce) {
    const std::map<std::string, int> errors = {{"EINTR", EINTR}, {"EINVAL", EINVAL}, {"SHORT", 0}};
    std::istringstream rows(boost::replace_all_copy(ReadFile(ZARO_TORTURE), "\n+", ""));
    ASSERT_FALSE(rows.str().empty());
    for (std::string line; std::getline(rows, line);) {
        std::istringstream fields(line);
        std::vector<std::string> row;
        for (std::string field; std::getline(fields, field, '|');) {
            row.push_back(field);
        }
        for (const std::string& name : Words(line[0] != '#' ? row.at(0) : "")) {
            Use(name);
            for (const std::string& call : Words(row[1])) {
                const std::string error = call.substr(std::min(call.find('=') + 1, call.size()));
                Torture(call.substr(0, call.find('=')),
                        errors.count(error) != 0 ? errors.at(error) : EIO, row);
            }
        }
    }
}
