#include <gmock/gmock.h>

#include "tests/support/temp_root.h"
#include "tests/support/web_service.h"

namespace {

using std::string;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Arguments = std::vector<string>;

const string kSsh = ZARO_DEVICE_BIN "/ssh", kPassword = "s3cret-and-long";

Arguments SshLine(const TempRoot& root) {
    root.Write("/tmp/pass", kPassword, 0600);
    return Words("-o NoneEnabled=yes -o NoneSwitch=yes -NfR40123:localhost:8080 dev@127.0.0.1",
                 {kSsh, "-d", root.Path("/tmp/pass")});
}

TEST(SshClient, RefusesOddCommandLines) {
    const TempRoot root;
    const std::pair<size_t, Arguments> rows[] = {
        // the position of an argument, and what replaces it
        {1, {"-D", ""}},
        {2, {fs::relative(root.Path("/tmp/pass")), "/nowhere/pass", "/tmp"}},
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
        EXPECT_THAT(Outcome(line), testing::MatchesRegex("255 ssh: [^\n]*\n"))
            << testing::PrintToString(line);
    }
    root.Write("/usr/zaro/etc/ssh/config", reached, 0666);
    EXPECT_THAT(Outcome(SshLine(root)), StartsWith("255 ssh: ")) << "anyone can write the file";
    EXPECT_FALSE(fs::exists(root.Path("/reached"))) << "the client was started";
}

TEST(SshClient, AnswersOnlyTheLoginsOwnQuestion) {
    const TempRoot root;
    const string question = "dev@h's password: ";
    const auto answer = [&](const string& prompt, const char* file = "/tmp/pass",
                            const char* variable = "A=b") {
        return Outcome({"/usr/bin/env", "ZARO_SSH_USER=dev",
                        "ZARO_SSH_PASSWORD_FILE=" + root.Path(file), variable, kSsh, prompt});
    };
    root.Write("/tmp/pass", kPassword, 0600);
    ASSERT_EQ(symlink("pass", root.Path("/tmp/link").c_str()), 0);
    EXPECT_EQ(answer(question), "0 " + kPassword + "\n");
    EXPECT_EQ(answer(question, "/tmp/pass", "SSH_ASKPASS_PROMPT=confirm"), "1 ");
    for (const char* prompt :
         {"root@h's password: ", "Enter dev@h's new password: ", "dev@h's old password: ",
          "Are you sure you want to continue connecting (yes/no)? ", ""}) {
        EXPECT_EQ(answer(prompt), "1 ") << prompt;
    }
    for (const char* file : {"/tmp/link", "/tmp", "/tmp/none"}) {
        EXPECT_EQ(answer(question, file), "1 ") << file;
    }
    for (const auto& [text, mode] : {std::pair(kPassword, 0604U),
                                     {kPassword, 0620U},
                                     {"", 0600U},
                                     {string(4097, 'x'), 0600U},
                                     {"a\nb", 0600U}}) {
        root.Write("/tmp/pass", text, mode);
        EXPECT_EQ(answer(question), "1 ") << mode << " " << text.substr(0, 20);
    }
}

TEST(SshClient, BecomesTheStockClient) {
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
    const string process = "/proc/" + std::to_string(client.Pid());
    const string command = ReadFile(process + "/cmdline");
    const string variables = ReadFile(process + "/environ");
    EXPECT_THAT(command + variables, Not(HasSubstr(kPassword)));
    EXPECT_THAT(command, StartsWith("ssh -d " + line[2] + '\0'));
    EXPECT_THAT(command, HasSubstr(string("\0--\0dev@127.0.0.1\0", 18)));
    EXPECT_THAT(command, Not(HasSubstr("None")));
    EXPECT_THAT(variables, HasSubstr("ZARO_ROOT=" + root.Dir()));
    EXPECT_THAT(variables, Not(HasSubstr("LD_AUDIT")));
}

} // namespace
