/// The command line as people and scripts use it, on a device of its own.
#pragma once

#include <gmock/gmock.h>

#include "tests/support/device.h"

constexpr const char* kStatusFile = "/tmp/.zarorelayd.status";

struct Result {
    int code;
    std::string out;
    std::string err;
};

const std::string kProgram = "'" ZARO_CTL "'";

/// A program, which may run under another, with a shell's words for arguments, in the root.
inline std::unique_ptr<Process> Start(const TempRoot& root, const std::string& words,
                                      const std::string& program = kProgram,
                                      const std::string& out = "ctl.out") {
    const std::string line =
        "exec " + program + " --root " + root.Dir() + " " + words + " >" + out + " 2>ctl.err";
    const std::vector<std::string> shell = {"/bin/sh", "-c", line};
    return std::make_unique<Process>(shell, "/dev/null", root.Dir());
}

struct Ctl : DeviceTest {
    /// Where everybody can go, however closed the folders of this user are.
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
    Json::Value ReadConfig() const { return Parse(root_.Read(Device::kConfig)); }

    Result Run(const std::string& words, const std::string& program = kProgram) const {
        // A daemon without a parent is reaped there; while it is a zombie it looks alive.
        const int code = InChild([&] { return Start(root_, words, program)->Wait(seconds(60)); });
        return {code, root_.Read("/ctl.out"), root_.Read("/ctl.err")};
    }

    /// Runs what fails with one line, which begins with the program's name and holds `text`.
    /// Gives the other output.
    std::string Fails(const std::string& words, int code, const std::string& text,
                      const std::string& program = kProgram) const {
        SCOPED_TRACE(words);
        const Result result = Run(words, program);
        EXPECT_EQ(result.code, code);
        EXPECT_EQ(result.err.find("zarorelayctl: "), 0U) << result.err;
        EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
        EXPECT_THAT(result.err, testing::HasSubstr(text));
        return result.out;
    }

    /// The status file of a daemon that runs: this process plays it.
    void WriteStatus(const std::string& members) const {
        root_.Write("/tmp/new", "{\"pid\":" + std::to_string(getpid()) + "," + members + "}");
        std::filesystem::rename(root_.Path("/tmp/new"), root_.Path(kStatusFile));
    }

    const TempRoot& root_ = device.root;
    Json::Value& config_ = device.config;
};

/// What a script relies on.
inline void ExpectWholeStatus(const Json::Value& status) {
    EXPECT_THAT(status.getMemberNames(),
                testing::ElementsAre("alias", "error", "pid", "running", "serverID", "service",
                                     "since", "state", "version"));
    EXPECT_THAT(status["alias"].getMemberNames(), testing::ElementsAre("extra", "name", "status"));
    for (const char* text : {"error", "serverID", "state", "version"}) {
        EXPECT_TRUE(status[text].isString()) << text;
    }
    ASSERT_TRUE(status["service"].isArray());
    for (const Json::Value& service : status["service"]) {
        EXPECT_THAT(service.getMemberNames(),
                    testing::ElementsAre("id", "local", "name", "port", "tunnel", "up"));
        if (!service["tunnel"].isNull()) {
            EXPECT_THAT(
                service["tunnel"].getMemberNames(),
                testing::ElementsAre("relay_ip", "relay_port", "restarts", "since", "status"));
        }
    }
}
