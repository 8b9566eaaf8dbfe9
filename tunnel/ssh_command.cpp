#include "tunnel/ssh_command.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "base/paths.h"

namespace ZARO::Relay::ssh {

namespace {

/// Where the loop stops: the process's limit may be millions, and ours are close-on-exec anyway.
constexpr int kMostDescriptors = 4096;

/// Marks every descriptor but the standard ones as close-on-exec; libraries open some without it.
void HideDescriptors() {
    if (syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) == 0) {
        return;
    }
    for (int fd = STDERR_FILENO + 1; fd < kMostDescriptors; ++fd) { // an older kernel
        (void)fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
}

/// Escapes a path for grep's pattern inside the double quotes of a shell command. "." stays as it
/// is: it only matches more.
std::string AsQuotedPattern(const std::string& path) {
    std::string quoted;
    for (const char c : path) {
        switch (c) {
        case '"':
        case '`':
            quoted += '\\';
            break;
        case '$':
        case '\\':
            quoted += "\\\\\\"; // the shell leaves one backslash and the character
            break;
        case '[':
        case '*':
        case '^':
            quoted += "\\\\";
            break;
        default:
            break;
        }
        quoted += c;
    }
    return quoted;
}

} // namespace

std::string AsFileName(const std::string& id) {
    std::string name;
    for (const char c : id) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '/' || byte < 0x20 || byte == 0x7f) {
            char escaped[4];
            (void)snprintf(escaped, sizeof escaped, "%%%02X", byte);
            name += escaped;
        } else {
            name += c;
        }
    }
    return name;
}

std::string PidSearch(const std::string& passFile) {
    return "ps w | grep \"ssh -d " + AsQuotedPattern(passFile) + "\"";
}

Client::Client(const std::string& passFile, const Way& way)
    : arguments_{paths::SshProgram(),
                 "-d",
                 passFile,
                 "-o",
                 "NoneEnabled=yes",
                 "-o",
                 "NoneSwitch=yes",
                 "-NfR" + std::to_string(way.relayPort) +
                     ":localhost:" + std::to_string(way.localPort),
                 way.user + "@" + way.host},
      argv_{} {
    std::transform(arguments_.begin(), arguments_.end(), argv_.begin(),
                   [](std::string& argument) { return argument.data(); });
}

void Client::Execute() const {
    HideDescriptors();
    execv(argv_[0], argv_.data());
}

} // namespace ZARO::Relay::ssh
