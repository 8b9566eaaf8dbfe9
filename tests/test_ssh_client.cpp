#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/temp_root.h"

namespace {

using std::string;
using Arguments = std::vector<string>;

const string kSsh = ZARO_DEVICE_BIN "/ssh";
const string kPassword = "s3cret-and-long";

/// Starts a program with its standard output and error in one pipe, whose other end is `output`.
pid_t Spawn(const Arguments& arguments, int& output) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    std::vector<char*> argv;
    for (const string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        execv(argv[0], argv.data());
        _exit(126);
    }
    close(ends[1]);
    output = ends[0];
    return pid;
}

/// What a descriptor gives up to `end`, or to its own end, or within ten seconds.
string ReadUntil(int fd, const string& end) {
    string text;
    pollfd ready{fd, POLLIN, 0};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (text.find(end) == text.npos && std::chrono::steady_clock::now() < deadline) {
        char c = '\0';
        if (poll(&ready, 1, 100) != 1) {
            continue;
        }
        if (read(fd, &c, 1) <= 0) {
            break;
        }
        text += c;
    }
    return text;
}

/// Runs a program to its end; gives its exit status, a blank, and what it printed.
string RunProgram(const Arguments& arguments) {
    int output = -1;
    const pid_t pid = Spawn(arguments, output);
    const string text = ReadUntil(output, "\n\n\n"); // none prints that: it reads to the end
    close(output);
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return std::to_string(WEXITSTATUS(status)) + " " + text;
}

Arguments SshLine(const TempRoot& root) {
    root.Write("/tmp/pass", kPassword, 0600);
    std::istringstream words("-d FILE -o NoneEnabled=yes -o NoneSwitch=yes "
                             "-NfR40123:localhost:8080 dev@127.0.0.1");
    Arguments line = {kSsh};
    for (string word; words >> word;) {
        line.push_back(word == "FILE" ? root.Path("/tmp/pass") : word);
    }
    return line;
}

TEST(SshClient, RefusesOddCommandLines) {
    const TempRoot root;
    const struct {
        size_t index;
        Arguments instead;
    } rows[] = {
        {1, {"-D", ""}},
        {2, {std::filesystem::relative(root.Path("/tmp/pass")), "/nowhere/pass", "/tmp"}},
        {4, {"ProxyCommand=true", "noneenabled=yes"}},
        {7, {"-NfR0:localhost:8080", "-NfR40123:localhost:65536", "-NfR40123:evil:80", "-NfR1:2"}},
        {7, {"-NfR1:localhost:8080 x", "-NfL1:localhost:8080", "1:localhost:8080", "-NfR"}},
        {8, {"127.0.0.1", "-oProxyCommand=true@h", "dev@-oProxyCommand=true", "@h", "dev@"}},
        {8, {"de v@h", "dev@h\n", "$(id)@h", "ssh://dev@h", "dev@%h", "dev@h/x", "dev@h;x"}},
    };
    const string reached = "ProxyCommand touch " + root.Path("/reached") + "\n";
    root.Write("/usr/zaro/etc/ssh/config", reached);
    std::vector<Arguments> lines = {{kSsh}, SshLine(root)};
    lines.back().push_back("reboot");
    for (const auto& row : rows) {
        for (const string& argument : row.instead) {
            lines.push_back(SshLine(root));
            lines.back()[row.index] = argument;
        }
    }
    for (const Arguments& line : lines) {
        const string outcome = RunProgram(line);
        EXPECT_EQ(outcome.rfind("255 ssh: ", 0), 0U) << testing::PrintToString(line) << outcome;
        EXPECT_EQ(outcome.find('\n'), outcome.size() - 1) << "one line: " << outcome;
    }
    root.Write("/usr/zaro/etc/ssh/config", reached, 0666);
    EXPECT_EQ(RunProgram(SshLine(root)).rfind("255 ssh: ", 0), 0U) << "anyone can write the file";
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
        const char* kind = nullptr;
    } rows[] = {
        {"the question", question},
        {"other user", "root@h's password: "},
        {"new password", "Enter dev@h's new password: "},
        {"old password", "dev@h's old password: "},
        {"host key", "Are you sure you want to continue connecting (yes/no)? "},
        {"confirmation", question, kPassword, 0600, "/tmp/pass", "confirm"},
        {"no text", ""},
        {"file others can read", question, kPassword, 0604},
        {"file the group can write", question, kPassword, 0620},
        {"link", question, kPassword, 0600, "/tmp/link"},
        {"folder", question, kPassword, 0600, "/tmp"},
        {"missing", question, kPassword, 0600, "/tmp/none"},
        {"empty", question, ""},
        {"too long", question, string(4097, 'x')},
        {"two lines", question, "a\nb"},
    };
    const TempRoot root;
    ASSERT_EQ(symlink("pass", root.Path("/tmp/link").c_str()), 0);
    setenv("ZARO_SSH_USER", "dev", 1);
    for (const auto& row : rows) {
        root.Write("/tmp/pass", row.text, row.mode);
        setenv("ZARO_SSH_PASSWORD_FILE", root.Path(row.file).c_str(), 1);
        row.kind == nullptr ? unsetenv("SSH_ASKPASS_PROMPT")
                            : setenv("SSH_ASKPASS_PROMPT", row.kind, 1);
        const string expected = &row == &rows[0] ? "0 " + kPassword + "\n" : "1 ";
        EXPECT_EQ(RunProgram({kSsh, row.prompt}), expected) << row.name;
    }
    for (const char* name : {"ZARO_SSH_USER", "ZARO_SSH_PASSWORD_FILE", "SSH_ASKPASS_PROMPT"}) {
        unsetenv(name);
    }
}

/// Listens on a free port of the loopback, which it gives.
int Listen(int& port) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(listener, generic, size), 0);
    EXPECT_EQ(listen(listener, 1), 0);
    EXPECT_EQ(getsockname(listener, generic, &size), 0);
    port = ntohs(address.sin_port);
    return listener;
}

TEST(SshClient, BecomesTheStockClientThatPsFinds) {
    const TempRoot root;
    int port = 0;
    const int listener = Listen(port);
    root.Write("/usr/zaro/etc/ssh/config", "Port " + std::to_string(port) + "\n");
    const string odd = "/tmp/p\xc3\xa4ss %h";
    root.Write(odd, kPassword, 0600);
    Arguments line = SshLine(root);
    line[2] = root.Path(odd);
    setenv("LD_AUDIT", "", 1);
    int output = -1;
    const pid_t pid = Spawn(line, output);
    unsetenv("LD_AUDIT");
    pollfd ready{listener, POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 10000), 1) << "the client connects to the configured port";
    const int peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    EXPECT_EQ(ReadUntil(peer, "\r\n").rfind("SSH-2.0-OpenSSH", 0), 0U);

    string told[2];
    for (const int i : {0, 1}) {
        std::ifstream file("/proc/" + std::to_string(pid) + (i == 0 ? "/cmdline" : "/environ"));
        told[i] = string(std::istreambuf_iterator<char>(file), {});
        EXPECT_EQ(told[i].find(kPassword), string::npos) << told[i];
    }
    EXPECT_EQ(told[0].rfind("ssh -d " + line[2] + '\0', 0), 0U) << told[0];
    EXPECT_NE(told[0].find(string("\0--\0dev@127.0.0.1\0", 18)), string::npos) << told[0];
    EXPECT_EQ(told[0].find("None"), string::npos) << told[0];
    EXPECT_NE(told[1].find("ZARO_ROOT=" + root.Dir()), string::npos);
    EXPECT_EQ(told[1].find("LD_AUDIT"), string::npos);

    const string search = "PATH=" ZARO_DEVICE_BIN ":$PATH; ps w | grep \"ssh -d " + line[2] + "\"";
    const string found = RunProgram({"/bin/sh", "-c", search});
    EXPECT_EQ(atoi(found.c_str() + 2), pid) << found;
    EXPECT_EQ(found.find('\n'), found.size() - 1) << "one line: " << found;
    kill(pid, SIGTERM);
    EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
    for (const int fd : {output, peer, listener}) {
        close(fd);
    }
}

} // namespace
