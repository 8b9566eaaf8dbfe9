#include "tunnel/ssh_command.h"

#include <cstdio>

namespace ZARO::Relay::ssh {

namespace {

/// A path inside the double quotes of a shell command, as a pattern for grep. Paths without
/// characters that either gives a meaning come out as they are; "." does, and only matches more.
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

std::array<std::string, 8> Arguments(const std::string& passFile, const Way& way) {
    return {"-d",
            passFile,
            "-o",
            "NoneEnabled=yes",
            "-o",
            "NoneSwitch=yes",
            "-NfR" + std::to_string(way.relayPort) + ":localhost:" + std::to_string(way.localPort),
            way.user + "@" + way.host};
}

} // namespace ZARO::Relay::ssh
