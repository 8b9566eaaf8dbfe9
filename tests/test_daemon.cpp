#include <zarorelayd/daemon.h>

#include <dlfcn.h>

#include <libdaemon/daemon.h>

#include "tests/support/unit.h"

using namespace ZARO::Relay;
using Texts = std::vector<std::string>;

namespace {

std::string gDaemonLog; ///< what libdaemon was told to log

struct DaemonTest : RootTest {
    ~DaemonTest() override {
        Daemon::_isForked = false;
        Daemon::_strLogFile.clear();
        Daemon::_logLevel = 4;
    }
};

} // namespace

#pragma GCC visibility push(default)
extern "C" void daemon_logv(int level, const char* format, va_list ap) {
    char text[8192];
    vsnprintf(text, sizeof text, format, ap);
    gDaemonLog = std::to_string(level) + " " + text;
}

/// As libdaemon's, but waits 4 s instead of 20 s for a child that has died.
extern "C" int daemon_retval_wait(int timeout) {
    const auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "daemon_retval_wait"));
    return timeout == 20 ? real(4) : -1;
}
#pragma GCC visibility pop

TEST_F(DaemonTest, SendsLinesWhereTheyBelong) {
    const std::string whole = "\x1b" + std::string(5000, 'x'); // printed as it is
    const std::string format = "%s:%d cause %m %d" + whole;    // not a literal: %m is not ISO C++
    const std::string text = "cause No such file or directory 7" + whole;
    // Forked, log file, threshold, level; goes to: e standard error, s system log, - nowhere.
    const std::tuple<bool, const char*, int, int, char> rows[] = {
        {false, "", 4, 4, 'e'}, {false, "", 4, 5, '-'}, {false, "x", 7, 7, 'e'},
        {true, "x", 4, 4, 'e'}, {true, "x", 4, 5, '-'}, {true, "", 4, 4, 's'},
        {true, "", 4, 5, '-'},  {true, "", 7, 7, 's'},  {false, "x", 0, 3, '-'}};
    for (const auto& [forked, file, threshold, level, where] : rows) {
        Daemon::_isForked = forked;
        Daemon::_strLogFile = file;
        gDaemonLog.clear();
        const Texts lines = LogOf("unit", threshold, [&, l = level] {
            errno = ENOENT;
            Daemon::Log(l, format.c_str(), "unit.cpp", 5, 7);
            EXPECT_EQ(errno, ENOENT);
        });
        EXPECT_EQ(lines, where == 'e' ? Texts{text} : Texts());
        EXPECT_EQ(gDaemonLog, where == 's' ? std::to_string(level) + " unit.cpp:5 " + text : "");
    }
    EXPECT_EQ(Signs({Daemon::IsLogEnable(4), Daemon::IsLogEnable(5)}), "+-");
}

TEST_F(DaemonTest, SetsLevelAndFile) {
    EXPECT_EQ(Signs({Daemon::SetLogFile("x", 6), Daemon::SetLogFile("y", -1)}), "++");
    EXPECT_EQ(Daemon::_strLogFile + std::to_string(Daemon::_logLevel), "y6");
    Daemon::_isForked = true;
    const mode_t mask = umask(0);
    const auto logs = [&] {
        Daemon::SetLogFile(root_.Path("/log"), 4);
        Daemon::SetLogFile(root_.Dir(), 4);
        Daemon::SetLogFile(root_.Path("/log"), 4); // appends
        Daemon::SetLogFile("", 4);
        Daemon::Log(4, "%s:%d to the system log", "unit.cpp", 5);
        fprintf(stderr, "to nowhere\n");
    };
    EXPECT_EQ(Captured(STDERR_FILENO, logs), "");
    umask(mask);
    EXPECT_EQ(LogTexts("daemon", root_.Read("/log")),
              Texts{"open log file [" + root_.Dir() + "] failed"});
    EXPECT_EQ(gDaemonLog, "4 unit.cpp:5 to the system log");
    EXPECT_EQ(fs::status(root_.Path("/log")).permissions(), fs::perms(0600));
}

TEST_F(DaemonTest, NamesItselfAndItsPidFile) {
    EXPECT_EQ(Signs({Daemon::SetName("/usr/bin/another"), Daemon::LibInit()}), "++");
    EXPECT_EQ(std::string(daemon_log_ident) + daemon_pid_file_ident, "anotheranother");
    EXPECT_TRUE(Logs("daemon", 3, "pid file must be absolute path",
                     [] { EXPECT_FALSE(Daemon::SetPidFile("var/x.pid")); }));
    EXPECT_EQ(daemon_pid_file_proc(), root_.Path("/var/run/another.pid"));
    EXPECT_EQ(
        Signs({Daemon::SetPidFile(""), Daemon::SetPidFile(nullptr), Daemon::SetName(nullptr)}),
        "---");
    Daemon::_strPidFile.clear();
    EXPECT_TRUE(Daemon::LibInit());
    EXPECT_EQ(Daemon::GetPidFile(), root_.Path("/var/run/zarorelayd.pid"));
}

TEST_F(DaemonTest, TellsTheCallerWhatFailed) {
    fs::remove(root_.Path("/var/run"));
    root_.Write("/log", "of the last start\n");
    Daemon::SetLogFile(root_.Path("/log"), 4);
    EXPECT_EQ(LogOf("daemon", 3, [] { EXPECT_EQ(InChild([] { return Daemon::Init(true); }), 4); }),
              Texts{"zarorelayd returned 4"});
    EXPECT_EQ(LogTexts("daemon", root_.Read("/log")),
              Texts{"Could not create PID file (No such file or directory)."});
    EXPECT_EQ(root_.Read("/log").find("last"), std::string::npos);
    const Texts log = LogOf("daemon", 3, [] { // Fork returns only in the background
        EXPECT_EQ(InChild([] { return Daemon::Fork() ? 0 : 1; }), 255);
    });
    EXPECT_THAT(log,
                testing::ElementsAre(testing::StartsWith("Could not recieve return value from "),
                                     "zarorelayd returned -1"));
}
