#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/temp_root.h"
#include "tests/support/web_service.h"

namespace {

using std::string;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Arguments = std::vector<string>;

const string kSsh = ZARO_DEVICE_BIN "/ssh";
const string kPassword = "s3cret-and-long";

Arguments SshLine(const TempRoot& root) {
    root.Write("/tmp/pass", kPassword, 0600);
    return Words(kSsh + " -d " + root.Path("/tmp/pass") + " -o NoneEnabled=yes -o NoneSwitch=yes " +
                 "-NfR40123:localhost:8080 dev@127.0.0.1");
}

TEST(SshClient, RefusesOddCommandLines) {
    const TempRoot root;
    const std::pair<size_t, Arguments> rows[] = {
        // what stands instead of an argument
        {1, {"-D", ""}},
        {2, {std::filesystem::relative(root.Path("/tmp/pass")), "/nowhere/pass", "/tmp"}},
        {4, {"ProxyCommand=true", "noneenabled=yes"}},
        {7, {"-NfR0:localhost:8080", "-NfR40123:localhost:65536", "-NfR40123:evil:80", "-NfR1:2"}},
        {7, {"-NfR1:localhost:8080 x", "-NfL1:localhost:8080", "1:localhost:8080", "-NfR"}},
        {8, {"127.0.0.1", "-oProxyCommand=true@h", "dev@-oProxyCommand=true", "@h", "dev@"}},
        {8, {"de v@h", "dev@h\n", "$(id)@h", "ssh://dev@h", "dev@%h", "dev@h/x", "dev@h;x"}}};
    const string reached = "ProxyCommand touch " + root.Path("/reached") + "\n";
    root.Write("/usr/zaro/etc/ssh/config", reached);
    std::vector<Arguments> lines = {{kSsh}, SshLine(root)};
    lines.back().push_back("reboot");
    for (const auto& [index, instead] : rows) {
        for (const string& argument : instead) {
            lines.push_back(SshLine(root));
            lines.back()[index] = argument;
        }
    }
    for (const Arguments& line : lines) {
        const string outcome = Outcome(line);
        EXPECT_THAT(outcome, StartsWith("255 ssh: ")) << testing::PrintToString(line);
        EXPECT_EQ(outcome.find('\n'), outcome.size() - 1) << "one line: " << outcome;
    }
    root.Write("/usr/zaro/etc/ssh/config", reached, 0666);
    EXPECT_THAT(Outcome(SshLine(root)), StartsWith("255 ssh: ")) << "anyone can write the file";
    EXPECT_FALSE(std::filesystem::exists(root.Path("/reached"))) << "the client was started";
}

TEST(SshClient, AnswersOnlyTheLoginsOwnQuestion) {
    const string question = "dev@h's password: ";
    const struct {
        const char* name;
        string prompt;
        string text = kPassword;
        mode_t mode = 0600;
        const char* file = "/tmp/pass";
        const char* variable = "A=b";
    } rows[] = {
        {"the question", question},
        {"other user", "root@h's password: "},
        {"new password", "Enter dev@h's new password: "},
        {"old password", "dev@h's old password: "},
        {"host key", "Are you sure you want to continue connecting (yes/no)? "},
        {"confirmation", question, kPassword, 0600, "/tmp/pass", "SSH_ASKPASS_PROMPT=confirm"},
        {"no text", ""},
        {"file others can read", question, kPassword, 0604},
        {"file the group can write", question, kPassword, 0620},
        {"link", question, kPassword, 0600, "/tmp/link"},
        {"folder", question, kPassword, 0600, "/tmp"},
        {"missing", question, kPassword, 0600, "/tmp/none"},
        {"empty", question, ""},
        {"too long", question, string(4097, 'x')},
        {"two lines", question, "a\nb"}};
    const TempRoot root;
    ASSERT_EQ(symlink("pass", root.Path("/tmp/link").c_str()), 0);
    for (const auto& row : rows) {
        root.Write("/tmp/pass", row.text, row.mode);
        const string file = "ZARO_SSH_PASSWORD_FILE=" + root.Path(row.file);
        const string expected = &row == &rows[0] ? "0 " + kPassword + "\n" : "1 ";
        EXPECT_EQ(
            Outcome({"/usr/bin/env", "ZARO_SSH_USER=dev", file, row.variable, kSsh, row.prompt}),
            expected)
            << row.name;
    }
}

TEST(SshClient, BecomesTheStockClientThatPsFinds) {
    const TempRoot root;
    const Listener server;
    root.Write("/usr/zaro/etc/ssh/config", "Port " + std::to_string(server.port) + "\n");
    const string odd = "/tmp/p\xc3\xa4ss %h";
    root.Write(odd, kPassword, 0600);
    Arguments line = SshLine(root);
    line[2] = root.Path(odd);
    const Process client(line, "/dev/null", "/", "LD_AUDIT=");
    pollfd ready{server.fd, POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 10000), 1) << "the client connects to the configured port";
    const int peer = accept4(server.fd, nullptr, nullptr, SOCK_CLOEXEC);
    char banner[16] = {};
    EXPECT_EQ(recv(peer, banner, 15, MSG_WAITALL), 15);
    EXPECT_STREQ(banner, "SSH-2.0-OpenSSH");

    const string process = "/proc/" + std::to_string(client.Pid());
    const string command = ReadFile(process + "/cmdline");
    const string variables = ReadFile(process + "/environ");
    EXPECT_THAT(command + variables, Not(HasSubstr(kPassword)));
    EXPECT_THAT(command, StartsWith("ssh -d " + line[2] + '\0'));
    EXPECT_THAT(command, HasSubstr(string("\0--\0dev@127.0.0.1\0", 18)));
    EXPECT_THAT(command, Not(HasSubstr("None")));
    EXPECT_THAT(variables, HasSubstr("ZARO_ROOT=" + root.Dir()));
    EXPECT_THAT(variables, Not(HasSubstr("LD_AUDIT")));

    const string search = "PATH=" ZARO_DEVICE_BIN ":$PATH; ps w | grep \"ssh -d " + line[2] + "\"";
    const string found = Outcome({"/bin/sh", "-c", search});
    EXPECT_EQ(atoi(found.c_str() + 2), client.Pid()) << found;
    EXPECT_EQ(found.find('\n'), found.size() - 1) << "one line: " << found;
    close(peer);
}

} // namespace
