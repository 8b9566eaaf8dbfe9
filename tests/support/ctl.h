/// The command line as people and scripts use it, on a device of its own.
#pragma once

#include <gmock/gmock.h>

#include "tests/support/device.h"

constexpr const char* kStatusFile = "/tmp/.zarorelayd.status";

struct Result {
    int code;
    std::string out, err;
};

const std::string kProgram = "'" ZARO_CTL "'";

/// Starts the command line in the root. `words`: its arguments, in shell syntax. `program` may
/// begin with another program that runs it.
inline std::unique_ptr<Process> Start(const TempRoot& root, const std::string& words,
                                      const std::string& program = kProgram,
                                      const std::string& out = "ctl.out") {
    const std::string line =
        "exec " + program + " --root " + root.Dir() + " " + words + " >" + out + " 2>ctl.err";
    const std::vector<std::string> shell = {"/bin/sh", "-c", line};
    return std::make_unique<Process>(shell, "/dev/null", root.Dir());
}

struct Ctl : DeviceTest {
    /// /tmp: a folder of this user's may be closed to the other user that one test needs.
    static void SetUpTestSuite() { setenv("TMPDIR", "/tmp", 1); }

    Ctl() {
        root_.Write("/sys/class/net/eth0/address", "00:11:22:aa:bb:cc\n");
        device.Define("photos", 81);
        root_.Write("/usr/zaro/etc/services.d/ftp.conf", "tcp=\"20,21\"\n");
        config_["serverID"] = "044756784";
        config_["other"] = Parse(R"({"kept":[1,2]})");
        WriteConfig();
    }

    void WriteConfig() { root_.Write(Device::kConfig, Compact(config_)); }
    Json::Value ReadConfig() const { return device.ReadJson(Device::kConfig); }

    Result Run(const std::string& words, const std::string& program = kProgram) const {
        // InChild reaps a daemon that has lost its parent: as a zombie it would look alive.
        const int code = InChild([&] { return Start(root_, words, program)->Wait(seconds(60)); });
        return {code, root_.Read("/ctl.out"), root_.Read("/ctl.err")};
    }

    /// Runs a command that must fail with one line on standard error, which begins with the
    /// program's name and contains `text`. Returns its standard output.
    std::string Fails(const std::string& words, int code, const std::string& text,
                      const std::string& program = kProgram) const {
        SCOPED_TRACE(words);
        const Result result = Run(words, program);
        EXPECT_EQ(result.code, code);
        EXPECT_THAT(result.err, testing::MatchesRegex("zarorelayctl: [^\n]*\n"));
        EXPECT_THAT(result.err, testing::HasSubstr(text));
        return result.out;
    }

    /// Writes the status file of a running daemon, whose part this process plays.
    void WriteStatus(const std::string& members) const {
        root_.Write("/tmp/new", "{\"pid\":" + std::to_string(getpid()) + "," + members + "}");
        fs::rename(root_.Path("/tmp/new"), root_.Path(kStatusFile));
    }

    const TempRoot& root_ = device.root;
    Json::Value& config_ = device.config;
};

/// Expects every member that scripts rely on.
inline void ExpectWholeStatus(const Json::Value& status) {
    EXPECT_EQ(status.getMemberNames(),
              Words("alias error pid running serverID service since state version"));
    EXPECT_EQ(status["alias"].getMemberNames(), Words("extra name status"));
    for (const char* text : {"error", "serverID", "state", "version"}) {
        EXPECT_TRUE(status[text].isString()) << text;
    }
    ASSERT_TRUE(status["service"].isArray());
    for (const Json::Value& service : status["service"]) {
        EXPECT_EQ(service.getMemberNames(), Words("id local name port tunnel up"));
        const char* const tunnel = "relay_ip relay_port restarts since status";
        if (!service["tunnel"].isNull()) {
            EXPECT_EQ(service["tunnel"].getMemberNames(), Words(tunnel));
        }
    }
}
