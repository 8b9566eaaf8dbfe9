/// The texts of a tunnel that reach a file name, a shell or an argument vector.
#pragma once

#include <array>
#include <string>

namespace ZARO::Relay::ssh {

/// A service id as part of a file name: it can't lead to another folder or break a line.
std::string AsFileName(const std::string& id);

/// The shell command that lists the ssh process whose command line names that password file. Quotes
/// the path, whatever it holds but a zero byte.
std::string PidSearch(const std::string& passFile);

/// What tells one tunnel's ssh from another's.
struct Way {
    std::string user;
    std::string host;
    int relayPort;
    int localPort;
};

/// The SSH client's arguments after its own name. Host and user go in as they are.
std::array<std::string, 8> Arguments(const std::string& passFile, const Way& way);

} // namespace ZARO::Relay::ssh
