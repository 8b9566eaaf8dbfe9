#include <iostream>

#include <zarorelayd/config.h>
#include <zarorelayd/daemon.h>

#include "app/ctl/control.h"
#include "app/ctl/device_state.h"
#include "app/ctl/interrupts.h"
#include "app/ctl/join.h"
#include "app/ctl/join_record.h"
#include "app/ctl/report.h"
#include "base/json.h"
#include "base/paths.h"
#include "base/terminal.h"

namespace ZARO::Relay::ctl {

namespace {

/// There was no server before, so there is nothing to connect to.
int SwitchOff(const DeviceState& before) {
    if (FindDaemon() == Presence::Running) {
        (void)Daemon::Kill(); // if it stays, the switch below makes it idle
    }
    int code = before.PutBackFiles();
    const RelaydConf conf(nullptr);
    if (code == kSuccess && conf.GetEnableConf() && !conf.SetEnableConf(false)) {
        code = Fail(kNoAnswer, paths::InfoFile() + " can't be changed",
                    RootOr("see whether it can be written, then: zarorelayctl leave"));
    }
    if (FindDaemon() == Presence::Running) {
        (void)Daemon::Hup(); // it has just been there
    }
    return code;
}

int LeaveFor(const DeviceState& before, JoinRecord& record) {
    const Interrupts unbroken; // Ctrl-C would leave half of it
    const Json::Value config = before.Config();
    const Json::Value* former = json::Find(config, "server_control");
    int code = former == nullptr ? SwitchOff(before) : before.PutBack();
    if (code == kSuccess) {
        code = record.Remove();
    }
    if (code == kSuccess) {
        const std::string now =
            former == nullptr
                ? "the relay is switched off"
                : "the control server is " + Clean(ServerConf(*former).GetUrl("")) + " again";
        std::cout << "Left " << record.Hub() << "; " << now << "." << std::endl;
    }
    return code;
}

} // namespace

int Leave() {
    JoinRecord record;
    DeviceState before;
    int code = CheckMayChange();
    if (code == kSuccess) {
        code = record.Open();
    }
    if (code != kSuccess) {
        return code;
    }
    if (record.IsJoined()) {
        return record.Found(before) ? LeaveFor(before, record) : record.TellDamaged();
    }
    if (record.HasMended()) {
        std::cout << "undid a join that was broken off" << std::endl;
        return kSuccess;
    }
    return Fail(kNotRunning, "this device has not joined a hub", "see: zarorelayctl join --help");
}

} // namespace ZARO::Relay::ctl
