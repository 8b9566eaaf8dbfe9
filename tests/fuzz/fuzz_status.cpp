/// The status file as another program reads it.
#include "tests/fuzz/fuzz.h"

void Fuzz(const std::string& input) {
    gDevice.Write("/tmp/.zarorelayd.status", input);
    Json::Value status;
    std::string id, state, error;
    const int running = Daemon::GetStatus(status);
    const bool read = Daemon::GetStatus(id, state, error, nullptr);
    assert(read == (running == 0 || running == 1) && error.empty() == !read);
    assert(running == 0 || state == (read ? "not_running" : ""));
    assert(Daemon::Status(false) == (read ? state == "not_running" : 2));
    assert(Daemon::GetStatus(id, state, error, "web") == read && state.empty() == !read);
    assert(id.empty() || id == "--" || id == status["serverID"].asString());
}
