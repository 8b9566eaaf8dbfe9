/// What the hub's tests share: a whole hub in this process, a device that speaks its protocol over
/// HTTPS, the device's side of an SSH tunnel, and its visitors.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <json/json.h>
#include <libssh/libssh.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "hub/fd.h"
#include "hub/forms.h"
#include "hub/hub.h"

namespace ZARO::RelayHub {

constexpr auto kDeadline = std::chrono::seconds(20);

/// Asks until `holds` does or the deadline is over; whether it did.
template <typename Condition> bool Eventually(Condition holds) {
    const auto end = std::chrono::steady_clock::now() + kDeadline;
    while (!holds()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

/// A folder that goes with the test.
class TemporaryFolder {
public:
    TemporaryFolder() {
        char name[] = "/tmp/hubtestXXXXXX";
        path_ = mkdtemp(name);
    }
    ~TemporaryFolder() { std::filesystem::remove_all(path_); }
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

inline Json::Value Parse(const std::string& text) {
    Json::Value value;
    std::string problem;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &problem)) << text;
    return value;
}

/// The errno of each reply, e.g. "0 0 9".
inline std::string Errnos(const Json::Value& replies) {
    std::string all;
    for (const Json::Value& reply : replies) {
        all += (all.empty() ? "" : " ") + reply["errno"].asString();
    }
    return all;
}

class TestHub {
public:
    TestHub() {
        options.data = folder.Path() + "/data";
        options.httpPort = options.httpsPort = options.relayPort = 0;
        // Beside each other: every process has its own part, away from the default range.
        options.firstPort = 30000 + getpid() % 138 * 20;
        options.lastPort = options.firstPort + 19;
        options.hold = std::chrono::milliseconds(300);
    }
    bool Start() {
        hub = std::make_unique<Hub>(options);
        std::string error;
        const bool started = hub->Start(&error);
        EXPECT_TRUE(started) << error;
        return started;
    }

    TemporaryFolder folder;
    HubOptions options;
    std::unique_ptr<Hub> hub;
};

/// A registered or still unknown device. Its identity follows from `number`.
class TestDevice {
public:
    explicit TestDevice(int httpsPort, int number = 1) : port_(httpsPort) {
        char text[32];
        snprintf(text, sizeof text, "02:00:4c:00:%02x:%02x", number / 256, number % 256);
        mac = text;
        serial = "SERIAL-" + std::to_string(number);
        token = "token" + std::to_string(number);
        id = *ServerIdOf(mac);
    }

    httplib::Result PostRaw(const std::string& body, const std::string& page = "/Serv.php") {
        httplib::SSLClient client("127.0.0.1", port_);
        client.enable_server_certificate_verification(false);
        client.set_read_timeout(kDeadline);
        httplib::Headers headers;
        if (!cookie.empty()) {
            headers.emplace("Cookie", "other=1; " + cookie);
        }
        httplib::Result result =
            client.Post(page, headers, body, "application/x-www-form-urlencoded");
        if (result && result->has_header("Set-Cookie")) {
            const std::string line = result->get_header_value("Set-Cookie");
            cookie = line.substr(0, line.find(';'));
        }
        return result;
    }
    Json::Value Post(const std::string& batch) {
        const httplib::Result result = PostRaw(batch);
        EXPECT_TRUE(result && result->status == 200) << batch;
        return result ? Parse(result->body) : Json::Value();
    }
    std::string RegisterCommand() const {
        return R"({"version":1,"command":"register","auth":{"serial":")" + serial + R"(","mac":")" +
               mac + R"(","token":")" + token + R"(","timezone":"Any"}})";
    }
    /// A batch that registers and publishes these services, "a,b": ports 1000, 1001, ...
    Json::Value Publish(const std::string& services) {
        return Post("[" + RegisterCommand() + "," + Services("service_add", services) + "]");
    }
    static std::string Services(const std::string& kind, const std::string& services) {
        std::string list;
        int port = 1000;
        for (size_t from = 0; from < services.size(); ++port) {
            const size_t to = std::min(services.find(',', from), services.size());
            list += (list.empty() ? R"({"id":")" : R"(,{"id":")") +
                    services.substr(from, to - from) + R"(","port":)" + std::to_string(port) + "}";
            from = to + 1;
        }
        return R"({"version":1,"command":"update_service",")" + kind + "\":[" + list + "]}";
    }
    std::string WaitCommand(int revision) const {
        return R"({"version":1,"command":"wait_command","serverID":")" + id + R"(","revision":)" +
               std::to_string(revision) + R"(,"tunnels":[]})";
    }
    /// The reply to a lone wait command.
    Json::Value Wait(int revision) { return Post("[" + WaitCommand(revision) + "]")[0]; }
    /// The tunnels that the device should have now, by service id.
    Json::Value Tunnels() {
        Json::Value byId(Json::objectValue);
        const Json::Value reply = Wait(0);
        for (const Json::Value& tunnel : reply["tunnels"]) {
            byId[tunnel["id"].asString()] = tunnel;
        }
        return byId;
    }

    std::string mac, serial, token, id, cookie;

private:
    int port_;
};

/// The device's end of an SSH connection to the relay, blocking.
class TestTunnel {
public:
    explicit TestTunnel(int relayPort) : session_(ssh_new()) {
        const unsigned port = static_cast<unsigned>(relayPort);
        const bool noFiles = false;
        ssh_options_set(session_, SSH_OPTIONS_HOST, "127.0.0.1");
        ssh_options_set(session_, SSH_OPTIONS_PORT, &port);
        ssh_options_set(session_, SSH_OPTIONS_PROCESS_CONFIG, &noFiles);
        ssh_options_set(session_, SSH_OPTIONS_KNOWNHOSTS, "/dev/null");
    }
    ~TestTunnel() {
        ssh_disconnect(session_);
        ssh_free(session_);
    }
    TestTunnel(const TestTunnel&) = delete;
    TestTunnel& operator=(const TestTunnel&) = delete;

    bool LogIn(const Json::Value& tunnel) {
        return LogIn(tunnel["relay_user"].asString(), tunnel["relay_pass"].asString());
    }
    bool LogIn(const std::string& user, const std::string& password) {
        ssh_options_set(session_, SSH_OPTIONS_USER, user.c_str());
        return ssh_connect(session_) == SSH_OK &&
               ssh_userauth_password(session_, nullptr, password.c_str()) == SSH_AUTH_SUCCESS;
    }
    bool Forward(int port) {
        return ssh_channel_listen_forward(session_, "localhost", port, nullptr) == SSH_OK;
    }
    bool Open(const Json::Value& tunnel) {
        return LogIn(tunnel) && Forward(tunnel["relay_port"].asInt());
    }
    /// The channel of the next visitor; null when none comes.
    ssh_channel Accept() {
        int port = 0;
        return ssh_channel_open_forward_port(session_, 10000, &port, nullptr, nullptr);
    }
    /// Everything the visitor sends until it ends its side.
    static std::string ReadAll(ssh_channel channel) {
        std::string all;
        std::vector<char> buffer(65536);
        for (;;) {
            const int got =
                ssh_channel_read(channel, buffer.data(), static_cast<uint32_t>(buffer.size()), 0);
            if (got <= 0) {
                return all;
            }
            all.append(buffer.data(), static_cast<size_t>(got));
        }
    }
    static bool Write(ssh_channel channel, const std::string& data) {
        return ssh_channel_write(channel, data.data(), static_cast<uint32_t>(data.size())) ==
               static_cast<int>(data.size());
    }
    /// Whether the relay has ended the session.
    bool IsEnded() {
        pollfd wait{ssh_get_fd(session_), POLLRDHUP, 0};
        return poll(&wait, 1, 0) > 0;
    }
    ssh_session Session() const { return session_; }

private:
    const ssh_session session_;
};

/// A visitor, or any other plain TCP client.
class TestVisitor {
public:
    explicit TestVisitor(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const timeval limit{kDeadline.count(), 0};
        (void)setsockopt(fd_.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        connected_ = connect(fd_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    bool IsConnected() const { return connected_; }
    bool Send(const std::string& data) {
        size_t done = 0;
        while (done < data.size()) {
            const ssize_t sent =
                send(fd_.Get(), data.data() + done, data.size() - done, MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            done += static_cast<size_t>(sent);
        }
        return true;
    }
    void EndSending() { shutdown(fd_.Get(), SHUT_WR); }
    /// What comes until the other side ends, or `size` bytes.
    std::string Read(size_t size = SIZE_MAX) {
        std::string all;
        char buffer[65536];
        while (all.size() < size) {
            const ssize_t got =
                recv(fd_.Get(), buffer, std::min(sizeof buffer, size - all.size()), 0);
            if (got <= 0) {
                break;
            }
            all.append(buffer, static_cast<size_t>(got));
        }
        return all;
    }

private:
    const Fd fd_;
    bool connected_ = false;
};

/// Bytes that show it when some are lost, doubled or moved.
inline std::string Pattern(size_t size) {
    std::string data;
    for (uint32_t i = 0; data.size() < size; ++i) {
        data.append(reinterpret_cast<const char*>(&i), sizeof i);
    }
    data.resize(size);
    return data;
}

} // namespace ZARO::RelayHub
