/// Stands between a device and the real hub, passes everything on and lets a test spoil replies.
#pragma once

#include "tests/support/http_server.h"
#include "tests/support/hub_process.h"
#include "tests/support/json_values.h"

/// Speaks plain HTTP on a free port of 127.0.0.1.
class ScriptedHub : NoCopy {
public:
    /// Changes the real hub's reply. Runs on a thread of the server.
    using Spoiler = std::function<void(httplib::Response&)>;

    /// Spoils the replies to batches that begin with `command`.
    ScriptedHub(const HubProcess& hub, std::string command, Spoiler spoil)
        : hub_(hub), command_(std::move(command)), spoil_(std::move(spoil)),
          server_([this](const auto& request, auto& reply) { Answer(request, reply); }) {}

    int Port() const { return server_.Port(); }
    std::size_t Requests() const { return server_.Requests().size(); }

    /// From now on it only passes on.
    void TurnGood() {
        const std::lock_guard<std::mutex> guard(lock_);
        spoil_ = nullptr;
    }

private:
    void Answer(const httplib::Request& q, httplib::Response& r) {
        httplib::Client hub("127.0.0.1", hub_.HttpPort());
        hub.set_read_timeout(60);
        const httplib::Headers headers = {{"Host", q.get_header_value("Host")},
                                          {"Cookie", q.get_header_value("Cookie")}};
        const auto reply = hub.Post(q.path, headers, q.body, "application/json");
        if (!reply) {
            r.status = 502;
            return;
        }
        r.status = reply->status;
        r.set_content(reply->body, "application/json");
        if (reply->has_header("Set-Cookie")) {
            r.set_header("Set-Cookie", reply->get_header_value("Set-Cookie"));
        }
        const std::lock_guard<std::mutex> guard(lock_);
        if (spoil_ != nullptr && Parse(q.body)[0U]["command"] == command_) {
            spoil_(r);
        }
    }

    const HubProcess& hub_;
    std::mutex lock_;
    const std::string command_;
    Spoiler spoil_;
    HttpServer server_; // last, so destroyed first: it uses the others
};
