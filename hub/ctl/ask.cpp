#include "hub/ctl/ask.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "base/json.h"
#include "base/unix_socket.h"
#include "hub/ctl/report.h"

namespace ZARO::RelayHub::ctl {

namespace {

constexpr char kSocket[] = "admin.sock";
constexpr auto kPatience = std::chrono::seconds(60); // the copy of a large database takes a while
constexpr std::size_t kLongestReply = 16 << 20;      // bytes

int FailToConnect(const std::string& data, int error) {
    switch (error) {
    case ENOENT:
    case ECONNREFUSED:
    case ENOTDIR:
        return Fail(kNotDone, "no hub runs on " + data,
                    "start it, or name the folder of one that runs with --data DIR");
    case EACCES:
    case EPERM:
        return Fail(kNotDone, "this user may not open " + data + "/" + kSocket,
                    "run this as root or as the hub's user");
    case EAGAIN:
        return Fail(kBusy, "the hub on " + data + " is busy", "retry in a moment");
    default:
        return Fail(kNotDone, "can't open " + data + "/" + kSocket + ": " + strerror(error),
                    "see whether --data names the hub's folder");
    }
}

/// A hub that refuses before it has read everything has sent its reply, so a failure is no matter.
void Send(int fd, const std::string& line) {
    for (std::size_t at = 0; at < line.size();) {
        const ssize_t sent = send(fd, line.data() + at, line.size() - at, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return;
        }
        at += static_cast<std::size_t>(sent);
    }
}

/// Reads up to the end of the line. 0, or the error that came first; EPIPE when the hub closed.
int Receive(int fd, std::string& line) {
    char block[65536];
    while (line.empty() || line.back() != '\n') {
        const ssize_t got = recv(fd, block, sizeof block, 0);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return got == 0 ? EPIPE : errno;
        }
        line.append(block, static_cast<std::size_t>(got));
        if (line.size() > kLongestReply) {
            return EFBIG;
        }
    }
    return 0;
}

int FailToReceive(int error) {
    if (error == EAGAIN) {
        return Fail(kBusy, "the hub does not answer",
                    "see whether it was done after all, else retry");
    }
    return Fail(kUnusable, "the hub ended before it answered",
                "see whether it was done after all, else retry");
}

int Take(const std::string& line, Json::Value& reply) {
    if (!json::Parse(line, reply) || !reply.isObject() || !reply["ok"].isBool()) {
        return Fail(kUnusable, "the hub's answer is unusable",
                    "use the zarorelay-hubctl that belongs to the hub");
    }
    if (reply["ok"].asBool()) {
        return kSuccess;
    }
    const int code = json::NumberOf(reply, "code");
    const bool isKnown = code == kNo || code == kNotDone || code == kBusy;
    return Fail(isKnown ? code : kUnusable, json::TextOf(reply, "error"));
}

} // namespace

int Ask(const std::string& data, const Json::Value& request, Json::Value& reply) {
    const UniqueFd fd = ConnectUnix(data, kSocket, kPatience);
    if (!fd.IsOpen()) {
        return FailToConnect(data, errno);
    }
    Send(fd.Get(), json::OneLine(request));
    std::string line;
    const int error = Receive(fd.Get(), line);
    return error != 0 ? FailToReceive(error) : Take(line, reply);
}

} // namespace ZARO::RelayHub::ctl
