/// The device's SSH client: keeps one reverse forward open with the stock OpenSSH client.
///
///   ssh -d FILE -o NoneEnabled=yes -o NoneSwitch=yes -NfRPORT:localhost:PORT USER@HOST
///
/// FILE holds the log-in password. The program takes exactly this command line, adds its own
/// settings and becomes the stock client, which goes to the background once the forward is up;
/// there its command line still begins with "ssh -d FILE", by which its starter finds it. When the
/// stock client wants the password, it runs this program again to answer.
#include "ssh_password.h"

#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "base/ascii.h"
#include "base/paths.h"
#include "number.h"

namespace ZARO::Platform {
namespace {

constexpr char kKnownHostsVariable[] = "ZARO_SSH_KNOWN_HOSTS";
constexpr int kFailed = 255; // as the stock client ends
constexpr unsigned int kLoginSeconds = 15;

// The first value of a setting counts, so the configuration file can't undo these.
constexpr const char* kSettings[] = {
    // The log-in: one password, given once, to the host that was seen first under this name.
    "PreferredAuthentications=password",
    "PasswordAuthentication=yes",
    "PubkeyAuthentication=no",
    "KbdInteractiveAuthentication=no",
    "HostbasedAuthentication=no",
    "GSSAPIAuthentication=no",
    "NumberOfPasswordPrompts=1",
    "StrictHostKeyChecking=accept-new",
    // The client puts the variable's value in as it is; a path in the setting itself would be taken
    // apart at blanks, quotes and per cent signs.
    "UserKnownHostsFile=${ZARO_SSH_KNOWN_HOSTS}",
    "GlobalKnownHostsFile=/dev/null",
    "KnownHostsCommand=none",
    "VerifyHostKeyDNS=no",
    "UpdateHostKeys=no",
    "CanonicalizeHostname=no",
    // The forward and nothing beside it.
    "ExitOnForwardFailure=yes",
    "ForwardAgent=no",
    "ForwardX11=no",
    "IdentityAgent=none",
    "PermitLocalCommand=no",
    "ControlMaster=no",
    "ControlPath=none",
    "ControlPersist=no",
    // A lost connection shows within 15 s.
    "ConnectTimeout=5",
    "ConnectionAttempts=1",
    "ServerAliveInterval=5",
    "ServerAliveCountMax=2",
    "TCPKeepAlive=yes",
    // Most traffic is compressed and encrypted already. aes128-gcm is the fastest cipher on
    // processors with support for it; the others remain after it.
    "Compression=no",
    "Ciphers=^aes128-gcm@openssh.com,aes256-gcm@openssh.com",
    "LogLevel=ERROR",
};

int Refuse(const char* reason) {
    (void)fprintf(stderr, "ssh: %s\n", reason);
    return kFailed;
}

bool IsOneOf(char c, const char* others) {
    return IsAlphanumeric(c) || (c != '\0' && strchr(others, c) != nullptr);
}

bool IsName(std::string_view text, const char* others) {
    return !text.empty() && text.size() <= 255 && text.front() != '-' &&
           std::all_of(text.begin(), text.end(), [&](char c) { return IsOneOf(c, others); });
}

/// USER@HOST, where neither can be taken for an option or be more than one word in a shell.
bool IsDestination(std::string_view text) {
    const size_t at = text.rfind('@');
    return at != text.npos && IsName(text.substr(0, at), "._-+=@") &&
           IsName(text.substr(at + 1), ".-_:");
}

/// PORT:localhost:PORT, remote and local.
bool IsForward(std::string_view text) {
    constexpr std::string_view kMiddle = ":localhost:";
    const size_t middle = text.find(kMiddle);
    int port = 0;
    return middle != text.npos && ParsePort(text.substr(0, middle), port) &&
           ParsePort(text.substr(middle + kMiddle.size()), port);
}

struct CommandLine {
    const char* passwordFile;
    std::string forward;
    std::string destination;
};

/// Gives what is wrong with the command line, or NULL.
const char* ParseCommandLine(int argc, char** argv, CommandLine& parsed) {
    constexpr std::string_view kForward = "-NfR";
    constexpr const char* kFixed[] = {nullptr,           "-d", nullptr,         "-o",
                                      "NoneEnabled=yes", "-o", "NoneSwitch=yes"};
    if (argc != 9) {
        return "usage: ssh -d FILE -o NoneEnabled=yes -o NoneSwitch=yes "
               "-NfRPORT:localhost:PORT USER@HOST";
    }
    for (size_t i = 0; i < std::size(kFixed); ++i) {
        if (kFixed[i] != nullptr && strcmp(argv[i], kFixed[i]) != 0) {
            return "the options must be -d, -o NoneEnabled=yes, -o NoneSwitch=yes, -NfR";
        }
    }
    parsed.passwordFile = argv[2];
    parsed.forward = argv[7];
    parsed.destination = argv[8];
    if (parsed.passwordFile[0] != '/') {
        return "the password file's path must be absolute";
    }
    if (parsed.forward.compare(0, kForward.size(), kForward) != 0 ||
        !IsForward(parsed.forward.erase(0, kForward.size()))) {
        return "the forward must be PORT:localhost:PORT, with ports of 1 to 65535";
    }
    return IsDestination(parsed.destination) ? nullptr : "the destination must be USER@HOST";
}

/// Gives what is wrong with the client's folder, or NULL. Without the folder the client could not
/// remember a host's key, and would take any key every time.
const char* PrepareFolder(std::string& config) {
    if (mkdir(paths::SshDir().c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        return "can't make the folder of the host keys";
    }
    config = paths::SshDir() + "/config";
    struct stat info {};
    if (stat(config.c_str(), &info) != 0) {
        const bool missing = errno == ENOENT;
        config = "none";
        return missing ? nullptr : "can't look at the configuration file";
    }
    // It can name programs to run, so only those who may run them anyway may write it.
    const bool trusted = S_ISREG(info.st_mode) && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0 &&
                         (info.st_uid == 0 || info.st_uid == geteuid());
    return trusted ? nullptr : "the configuration file must be this user's, closed to writers";
}

/// Removes from the environment what would change how the client or the loader works.
void CleanEnvironment() {
    std::vector<std::string> names;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        if (strncmp(*entry, "LD_", 3) == 0 || strncmp(*entry, "SSH_", 4) == 0) {
            names.emplace_back(*entry, strcspn(*entry, "="));
        }
    }
    for (const std::string& name : names) {
        unsetenv(name.c_str());
    }
}

/// Gives what is wrong, or NULL.
const char* PrepareEnvironment(const CommandLine& command) {
    char self[PATH_MAX];
    const ssize_t size = readlink("/proc/self/exe", self, sizeof self - 1);
    if (size <= 0) {
        return "can't find this program's own path";
    }
    self[size] = '\0';
    CleanEnvironment();
    const std::string user = command.destination.substr(0, command.destination.rfind('@'));
    const std::string knownHosts = paths::SshDir() + "/known_hosts";
    const bool set = setenv("SSH_ASKPASS", self, 1) == 0 &&
                     setenv("SSH_ASKPASS_REQUIRE", "force", 1) == 0 &&
                     setenv(kPasswordFileVariable, command.passwordFile, 1) == 0 &&
                     setenv(kUserVariable, user.c_str(), 1) == 0 &&
                     setenv(kKnownHostsVariable, knownHosts.c_str(), 1) == 0;
    return set ? nullptr : "out of memory";
}

/// Gives the signals their default effect: an ignored or blocked SIGALRM would be no watchdog, and
/// an ignored SIGTERM would leave a tunnel that can't be ended.
void ResetSignals() {
    for (const int number : {SIGALRM, SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGCHLD, SIGPIPE}) {
        (void)signal(number, SIG_DFL); // can't fail for these
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

std::vector<std::string> ClientArguments(const CommandLine& command, const std::string& config) {
    std::vector<std::string> arguments = {std::string("ssh -d ") + command.passwordFile, "-F",
                                          config};
    for (const char* setting : kSettings) {
        arguments.insert(arguments.end(), {"-o", setting});
    }
    arguments.insert(arguments.end(),
                     {"-N", "-f", "-R", command.forward, "--", command.destination});
    return arguments;
}

int Connect(int argc, char** argv) {
    CommandLine command{};
    std::string config;
    std::string password; // read only to report at once what would fail silently later
    const char* wrong = ParseCommandLine(argc, argv, command);
    if (wrong == nullptr) {
        wrong = ReadPassword(command.passwordFile, password);
    }
    if (wrong == nullptr) {
        wrong = PrepareFolder(config);
    }
    if (wrong == nullptr) {
        wrong = PrepareEnvironment(command);
    }
    if (wrong != nullptr) {
        return Refuse(wrong);
    }
    std::vector<std::string> arguments = ClientArguments(command, config);
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    ResetSignals();
    alarm(kLoginSeconds); // lives on in the client; the background part does not inherit it
    execv(paths::kStockSsh, pointers.data());
    return Refuse("can't run /usr/bin/ssh");
}

} // namespace
} // namespace ZARO::Platform

int main(int argc, char** argv) {
    using namespace ZARO::Platform;
    try {
        const bool asked = argc == 2 && getenv(kPasswordFileVariable) != nullptr;
        return asked ? AnswerPrompt(argv[1]) : Connect(argc, argv);
    } catch (const std::exception&) {
        return Refuse("out of memory");
    }
}
