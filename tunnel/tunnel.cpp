#include <zarorelayd/tunnel.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <zarorelayd/daemon.h>

#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/replace_file.h"
#include "base/unique_fd.h"
#include "tunnel/ssh_command.h"

namespace ZARO::Relay {

namespace {

/// Carries the errno of a failed exec from the forked child to its parent, in shared memory: a log
/// line in the child could wait for ever for a lock that another thread held at the fork.
class ChildsError {
public:
    ChildsError()
        : shared_(mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1,
                       0)) {}
    ChildsError(const ChildsError&) = delete;
    ChildsError& operator=(const ChildsError&) = delete;
    ~ChildsError() {
        if (shared_ != MAP_FAILED) {
            (void)munmap(shared_, sizeof(int));
        }
    }
    void Set(int error) {
        if (shared_ != MAP_FAILED) {
            *static_cast<volatile int*>(shared_) = error;
        }
    }
    /// 0 when the exec succeeded, or when there was no memory to share.
    int Get() const { return shared_ != MAP_FAILED ? *static_cast<volatile int*>(shared_) : 0; }

private:
    void* const shared_;
};

/// The client's foreground process ends when it has logged in and gone to the background, or has
/// failed.
bool WaitForLogin(pid_t child, const ChildsError& error) {
    int st = 0;
    pid_t ended = -1;
    do {
        ended = waitpid(child, &st, 0);
    } while (ended < 0 && errno == EINTR);
    if (ended != child) {
        return false;
    }
    if (error.Get() != 0) {
        RELAY_LOG(log::Error, "execl SSH failed, %s", strerror(error.Get()));
    }
    const int code = (st >> 8) & 0xff;
    RELAY_LOG(log::Debug, "ssh returned: %d", code);
    if ((st & 0x7f) != 0 || code != 0) {
        RELAY_LOG(log::Error, "tunnel create failed");
        return false;
    }
    return true;
}

void LogClient(const ssh::Client& client) {
    RELAY_LOG(log::Debug, "/usr/zaro/bin/ssh -d %s %s %s", client.PassFile(), client.Forward(),
              client.Destination());
}

} // namespace

Tunnel::Tunnel() : pid_(-1), relay_port_(-1), service_(nullptr), status_(TUNNEL_STATUS_NONE) {
}

Tunnel::Tunnel(const Json::Value& v) : Tunnel() {
    Tunnel::Overwrite(v);
}

Tunnel::~Tunnel() = default; // the ssh process keeps running

bool Tunnel::Overwrite(const Json::Value& v) {
    json::Get(v, "relay_ip", relay_ip_);
    json::Get(v, "relay_port", relay_port_);
    json::Get(v, "relay_pass", relay_pass_);
    json::Get(v, "relay_user", relay_user_);
    service_.Overwrite(v);
    return true;
}

bool Tunnel::IsValid() const {
    if (!service_.IsValid()) {
        RELAY_LOG(log::Debug, "wrong service info");
        return false;
    }
    if (relay_ip_.empty() || relay_port_ < 0 || relay_pass_.empty() || relay_user_.empty()) {
        RELAY_LOG(log::Debug, "invalid tunnel server info");
        return false;
    }
    return true;
}

bool Tunnel::Write(Json::Value& out, bool full) const {
    if (!service_.Write(out, kFullForm)) {
        return false;
    }
    out["relay_ip"] = relay_ip_;
    out["relay_port"] = relay_port_;
    if (!full) {
        return true;
    }
    out["relay_pass"] = relay_pass_;
    out["relay_user"] = relay_user_;
    out["status"] = GetStatusStr(status_);
    out["pid"] = pid_;
    return true;
}

const std::string& Tunnel::GetServiceId() const {
    return service_.id;
}

const ServiceConf& Tunnel::GetServiceConf() const {
    return service_;
}

TUNNEL_STATUS Tunnel::GetStatus() const {
    return status_;
}

std::string Tunnel::GetStatusStr(TUNNEL_STATUS status) {
    switch (status) {
    case TUNNEL_STATUS_NONE:
        return "TUNNEL_STATUS_NONE";
    case TUNNEL_STATUS_READY:
        return "TUNNEL_STATUS_READY";
    case TUNNEL_STATUS_CLOSE:
        return "TUNNEL_STATUS_CLOSE";
    case TUNNEL_STATUS_FAILED:
        return "TUNNEL_STATUS_FAILED";
    case TUNNEL_STATUS_INVALID_CONF:
        return "TUNNEL_STATUS_INVALID_CONF";
    }
    return "(unknown)";
}

bool Tunnel::operator==(const Tunnel& other) const {
    return service_ == other.service_ && relay_ip_ == other.relay_ip_ &&
           relay_user_ == other.relay_user_ && relay_pass_ == other.relay_pass_ &&
           relay_port_ == other.relay_port_;
}

bool Tunnel::operator!=(const Tunnel& other) const {
    return !(*this == other);
}

bool Tunnel::IsAlive() {
    if (pid_ < 0) {
        return false;
    }
    if (kill(pid_, 0) == 0) {
        return true;
    }
    pid_ = -1; // whatever the error: what can't be signalled is not ours any more
    return false;
}

bool Tunnel::CheckStatusChanged() {
    if (IsAlive() || status_ != TUNNEL_STATUS_READY) {
        return false;
    }
    status_ = TUNNEL_STATUS_CLOSE;
    return true;
}

bool Tunnel::Destroy() {
    if (!IsAlive()) {
        return true;
    }
    RELAY_LOG(log::Debug, "kill ssh %d", pid_);
    return kill(pid_, SIGTERM) == 0;
}

bool Tunnel::WritePassFile(const std::string& path) const {
    // A new file, closed to others from its first instant; never written through a planted link.
    FreeName(path);
    const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!fd.IsOpen()) {
        struct stat info = {};
        const bool folder =
            errno == EEXIST && lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
        errno = folder ? EISDIR : errno; // the cause, for the log line
        RELAY_LOG(log::Error, "open [%s] failed, %s", path.c_str(), strerror(errno));
        unlink(path.c_str());
        return false;
    }
    bool good = fchmod(fd.Get(), 0600) == 0;
    if (!good) {
        RELAY_LOG(log::Error, "chmod [%s] failed, %s", path.c_str(), strerror(errno));
    } else if (!WriteAll(fd.Get(), relay_pass_)) {
        RELAY_LOG(log::Error, "write pass failed, %s", strerror(errno));
        good = false;
    }
    if (!good) {
        unlink(path.c_str());
    }
    return good;
}

bool Tunnel::Create() {
    status_ = TUNNEL_STATUS_NONE;
    pid_ = -1;
    const std::string passFile = paths::PasswordFile(getpid(), ssh::AsFileName(service_.id));
    if (!IsValid()) {
        return false;
    }
    // Everything that allocates comes before the password file, which must not outlive this call;
    // everything that locks comes before the fork.
    const ssh::Client client(passFile, {relay_user_, relay_ip_, relay_port_, LocalPort(service_)});
    const std::string search = ssh::PidSearch(passFile);
    ChildsError error;
    if (!WritePassFile(passFile)) {
        return false;
    }
    LogClient(client);
    pid_ = fork();
    if (pid_ == 0) {
        client.Execute();
        error.Set(errno);
        return false;
    }
    bool good = false;
    if (pid_ < 0) {
        RELAY_LOG(log::Error, "fork failed %s", strerror(errno));
    } else {
        good = WaitForLogin(pid_, error) && FindBackgroundPid(search.c_str());
    }
    status_ = good ? TUNNEL_STATUS_READY : TUNNEL_STATUS_FAILED;
    unlink(passFile.c_str());
    return good;
}

/// The background process still shows the password file on its command line.
bool Tunnel::FindBackgroundPid(const char* search) {
    FILE* output = popen(search, "re");
    if (output == nullptr) {
        pid_ = -1;
        RELAY_LOG(log::Error, "get ssh info failed");
        return false;
    }
    // Nothing found counts as success with the foreground's pid: the tunnel may be up all the same,
    // and if it is not, the next check finds that process gone.
    bool good = true;
    char* line = nullptr;
    std::size_t size = 0;
    if (getline(&line, &size, output) >= 0) {
        good = sscanf(line, "%d", &pid_) == 1;
        if (good) {
            RELAY_LOG(log::Debug, "tunnel running: %d", pid_);
        } else {
            RELAY_LOG(log::Debug, "get tunnel pid failed");
            pid_ = -1;
        }
    }
    // Ids that begin alike match too. Reads the rest, so that grep does not fail on a closed pipe.
    while (getline(&line, &size, output) >= 0) {
    }
    if (pclose(output) != 0) {
        RELAY_LOG(log::Error, "pclose failed");
    }
    free(line);
    return good;
}

bool Tunnel::RunSSHTunnel(const char* passFile) const {
    if (passFile == nullptr) {
        return false;
    }
    const ssh::Client client(passFile, {relay_user_, relay_ip_, relay_port_, LocalPort(service_)});
    LogClient(client);
    client.Execute();
    RELAY_LOG(log::Error, "execl SSH failed, %s", strerror(errno));
    return false;
}

} // namespace ZARO::Relay
