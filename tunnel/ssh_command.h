/// How a tunnel's texts become part of a file name, a shell command and an argument vector.
#pragma once

#include <array>
#include <string>

namespace ZARO::Relay::ssh {

/// A service id as part of a file name: it can't lead to another folder or break a line.
std::string AsFileName(const std::string& id);

/// The shell command that lists the ssh process whose command line names that password file. The
/// path may hold any byte but zero.
std::string PidSearch(const std::string& passFile);

/// What differs between the clients of two tunnels.
struct Way {
    std::string user;
    std::string host;
    int relayPort;
    int localPort;
};

/// The SSH client's whole command line, made before a fork, so that nothing allocates after it.
/// Host and user go in unchanged.
class Client {
public:
    Client(const std::string& passFile, const Way& way);
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // The arguments that differ between clients.
    const char* PassFile() const { return arguments_[2].c_str(); }
    const char* Forward() const { return arguments_[7].c_str(); }
    const char* Destination() const { return arguments_[8].c_str(); }

    /// Replaces this process by the client, which gets the standard descriptors only. Returns, with
    /// errno, when it can't be executed. Safe between fork and exec: it neither allocates nor locks
    /// nor logs.
    void Execute() const;

private:
    std::array<std::string, 9> arguments_;
    std::array<char*, 10> argv_; ///< points into the arguments
};

} // namespace ZARO::Relay::ssh
