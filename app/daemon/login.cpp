#include "app/daemon/login.h"

#include <unistd.h>

#include <string>

#include "app/daemon/login_guard.h"

namespace ZARO::Relay::app {

bool LogIn(Tunnel& tunnel, ChildWatch& children) {
    const pid_t daemon = getpid();
    bool good = false;
    {
        const LoginGuard guard;
        good = tunnel.Create();
        if (getpid() != daemon) {
            _exit(127); // the child whose SSH client could not be executed
        }
    }
    // The search for the process also finds that of a service whose id only begins with this one's.
    const std::string ending = std::to_string(daemon) + "." + tunnel.GetServiceId();
    if (good && ServesPasswordFile(tunnel.GetPid(), ending) && children.Add(tunnel.GetPid())) {
        return true;
    }
    // The process that could not be found may run all the same; it must not hold the port.
    EndStrays([&](const std::string& file) { return file == ending; });
    if (good) {
        tunnel.ForgetProcess();
    }
    return false;
}

} // namespace ZARO::Relay::app
