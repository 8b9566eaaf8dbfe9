/// What the hub's tests share: a device that speaks its protocol over HTTPS, and the device's side
/// of an SSH tunnel.
#pragma once

#include <httplib.h>
#include <libssh/libssh.h>

#include "hub/names.h"
#include "tests/support/hub_process.h"
#include "tests/support/json_values.h"

namespace ZARO::RelayHub {

/// The errno of each reply, e.g. "0 0 9".
inline std::string Errnos(const Json::Value& replies) {
    std::string all;
    for (const Json::Value& reply : replies) {
        all += (all.empty() ? "" : " ") + reply["errno"].asString();
    }
    return all;
}

/// The status of a reply, 0 without one.
inline int StatusOf(const httplib::Result& result) {
    return result ? result->status : 0;
}

/// A registered or still unknown device. Its identity follows from `number`.
class TestDevice {
public:
    /// With `services` it has published these.
    explicit TestDevice(const HubProcess& hub, int number = 1, const char* services = nullptr)
        : port_(hub.HttpsPort()) {
        (void)signal(SIGPIPE, SIG_IGN); // a hub that hangs up is an answer missed, no more
        char text[32];
        snprintf(text, sizeof text, "02:00:4c:00:%02x:%02x", number / 256, number % 256);
        mac = text;
        serial = "SERIAL-" + std::to_string(number);
        token = "token" + std::to_string(number);
        id = *ServerIdOf(mac);
        if (services != nullptr) {
            EXPECT_EQ(Errnos(Publish(services)), "0 0");
        }
    }

    httplib::Result PostRaw(const std::string& body, const std::string& page = "/Serv.php") {
        httplib::SSLClient client("127.0.0.1", port_);
        client.enable_server_certificate_verification(false);
        client.set_read_timeout(20);
        httplib::Result result = client.Post(page, {{"Cookie", "other=1; " + cookie}}, body,
                                             "application/x-www-form-urlencoded");
        if (result && result->has_header("Set-Cookie")) {
            const std::string line = result->get_header_value("Set-Cookie");
            cookie = line.substr(0, line.find(';'));
        }
        return result;
    }
    Json::Value Post(const std::string& batch) {
        const httplib::Result result = PostRaw(batch);
        EXPECT_EQ(StatusOf(result), 200) << batch;
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
        std::istringstream ids(services);
        std::string list;
        int port = 1000;
        for (std::string id; std::getline(ids, id, ','); ++port) {
            list += std::string(list.empty() ? "" : ",") + R"({"id":")" + id + R"(","port":)" +
                    std::to_string(port) + "}";
        }
        return R"({"version":1,"command":"update_service",")" + kind + "\":[" + list + "]}";
    }
    std::string WaitCommand(int revision) const {
        return R"({"version":1,"command":"wait_command","serverID":")" + id + R"(","revision":)" +
               std::to_string(revision) + R"(,"tunnels":[]})";
    }
    /// The reply to a lone wait command.
    Json::Value Wait(int revision) { return Post("[" + WaitCommand(revision) + "]")[0]; }
    /// The revision now.
    int Revision() { return Wait(0)["revision"].asInt(); }
    /// The tunnels that the device should have now, by service id.
    Json::Value Tunnels() {
        Json::Value byId(Json::objectValue);
        const Json::Value reply = Wait(0);
        for (const Json::Value& tunnel : reply["tunnels"]) {
            byId[tunnel["id"].asString()] = tunnel;
        }
        return byId;
    }

    /// From now on it sends its requests to this hub.
    void MoveTo(const HubProcess& hub) { port_ = hub.HttpsPort(); }

    std::string mac, serial, token, id, cookie;

private:
    int port_;
};

/// The device's end of an SSH connection to the relay, blocking. Its channels go with it.
class TestTunnel : NoCopy {
public:
    explicit TestTunnel(const HubProcess& hub) : session_(ssh_new()) {
        const unsigned port = static_cast<unsigned>(hub.RelayPort());
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
    /// One that forwards.
    TestTunnel(const HubProcess& hub, const Json::Value& tunnel) : TestTunnel(hub) {
        EXPECT_TRUE(LogIn(tunnel));
        EXPECT_TRUE(Forward(tunnel["relay_port"].asInt()));
    }

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
    /// The channel of the next visitor.
    ssh_channel Accept() {
        int port = 0;
        ssh_channel channel =
            ssh_channel_open_forward_port(session_, 10000, &port, nullptr, nullptr);
        return channel != nullptr ? channel : throw std::runtime_error("no visitor came");
    }
    /// Everything the visitor sends until it ends its side.
    static std::string ReadAll(ssh_channel channel) {
        std::string all;
        char block[65536];
        for (int got = 0; (got = ssh_channel_read(channel, block, sizeof block, 0)) > 0;) {
            all.append(block, static_cast<size_t>(got));
        }
        return all;
    }
    /// Whether the next visitor is this one and gets through.
    bool Serves(const Visitor& visitor) {
        return Write(Accept(), "hello") && visitor.Read(5) == "hello";
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

} // namespace ZARO::RelayHub
