#include "app/daemon/relay_daemon.h"

#include <signal.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <set>
#include <string>
#include <utility>

#include <libdaemon/dsignal.h>

#include <zarorelayd/daemon.h>

#include "app/common/config_check.h"
#include "app/daemon/log_target.h"
#include "app/daemon/secrets.h"
#include "app/daemon/settings.h"
#include "base/log.h"
#include "base/paths.h"

namespace ZARO::Relay::app {

namespace {

/// Changes of the network come in bursts.
constexpr milliseconds kNetworkSettles{200};
constexpr seconds kRefreshEvery{60};
constexpr milliseconds kStopPatience{700};

} // namespace

RelayDaemon::RelayDaemon(const RelaydConf& conf)
    : conf_(conf), exchange_(conf_, queue_, keeper_, [this] { (void)Reload(); }),
      alias_(conf_, queue_, [this] { exchange_.DropNames(); }),
      hasFile_(access(paths::ConfigFile().c_str(), F_OK) == 0) {
    conf_.network.ReadConf();
    (void)conf_.auth.ReadConf(); // logged; the exchange tries again
    WriteStatus();
}

bool RelayDaemon::Run() {
    try {
        while (gblRun != 0) {
            Pass();
        }
    } catch (const std::exception& fault) {
        RELAY_LOG(log::Error, "out of resources, stopping: %s", fault.what());
        Stop();
        return false;
    }
    Stop();
    return true;
}

void RelayDaemon::Pass() {
    ++passes_;
    const Time now = Clock::now();
    Tick(now);
    // New requests get their descriptors. What has arrived, also during a log-in, is taken in
    // before the wait, which would not see it any more.
    watch_.Step("requests");
    queue_.CheckSchedule();
    watch_.Step("replies");
    queue_.CheckDoneJobs();
    watch_.Step("the status file");
    WriteStatus();
    Wait(now);
}

void RelayDaemon::Tick(Time now) {
    if (now >= networkCheck_) {
        watch_.Step("the network");
        networkCheck_ = Time::max();
        TakeNetworkChange(now);
    }
    watch_.Step("the tunnels' processes");
    keeper_.Notice(now);
    if (now >= refreshDue_) {
        refreshDue_ = now + kRefreshEvery;
        status_.Refresh();
    }
    if (!conf_.enable) {
        return;
    }
    watch_.Step("the exchange");
    exchange_.Tick(now);
    if (exchange_.IsRegistered()) {
        watch_.Step("the alias");
        alias_.Tick(now);
    }
    watch_.Step("a log-in", true);
    keeper_.StartDue(now);
    watch_.Step("the local services");
    probes_.Probe(conf_.services, now);
}

Time RelayDaemon::NextDue(Time now) const {
    Time due = std::min({networkCheck_, refreshDue_, keeper_.NextDue()});
    if (conf_.enable) {
        due = std::min(due, exchange_.NextDue());
        if (exchange_.IsRegistered()) {
            due = std::min(due, alias_.NextDue());
        }
        due = std::min(due, probes_.NextDue());
    }
    if (alias_.IsBusy()) {
        due = std::min(due, now + kTurn);
    }
    return std::min(
        {due, exchange_.NextTurn(now), now + seconds(std::max(0, queue_.GetTimeOffset()))});
}

void RelayDaemon::Wait(Time now) {
    fd_set read;
    fd_set write;
    fd_set except;
    FD_ZERO(&read);
    FD_ZERO(&write);
    FD_ZERO(&except);
    int maxfd = -1;
    queue_.GetFdSet(&read, &write, &except, &maxfd);
    Time due = NextDue(now);
    if (maxfd < 0 && exchange_.HasRequest()) {
        due = std::min(due, now + kTurn); // no descriptor shows what libcurl does
    }
    const int signals = daemon_signal_fd();
    for (const int fd : {signals, network_.Descriptor()}) {
        if (fd >= 0 && fd < FD_SETSIZE) {
            FD_SET(fd, &read);
            maxfd = std::max(maxfd, fd);
        }
    }
    keeper_.AddTo(read, maxfd);
    const auto wait = std::chrono::duration_cast<std::chrono::microseconds>(
        std::max(Clock::duration::zero(), due - Clock::now()));
    timeval timeout = {};
    timeout.tv_sec = wait.count() / 1000000;
    timeout.tv_usec = wait.count() % 1000000;
    watch_.Done();
    if (select(maxfd + 1, &read, &write, &except, &timeout) < 0) {
        FD_ZERO(&read);
    }
    watch_.Step("signals");
    if (signals >= 0 && FD_ISSET(signals, &read)) {
        OnSignals();
    }
    if (network_.Descriptor() >= 0 && FD_ISSET(network_.Descriptor(), &read) && network_.Drain()) {
        OnNetworkEvent(Clock::now());
    }
}

void RelayDaemon::OnSignals() {
    for (int signal = daemon_signal_next(); signal > 0; signal = daemon_signal_next()) {
        switch (signal) {
        case SIGTERM:
        case SIGINT:
        case SIGQUIT:
            RELAY_LOG(log::Info, "stopping on signal %d", signal);
            gblRun = 0;
            return;
        case SIGHUP:
            ReloadByUser();
            break;
        case SIGUSR1:
            gblShowDebug = 1;
            break;
        default:
            break;
        }
    }
    if (gblShowDebug != 0) { // one dump, however many asked for it meanwhile
        gblShowDebug = 0;
        WriteDump(Dump());
    }
}

// --- configuration

/// Whoever asks for a reload has repaired something: everything that waits is tried at once.
void RelayDaemon::ReloadByUser() {
    if (!Reload()) {
        return;
    }
    const Time now = Clock::now();
    exchange_.ConfigurationChanged(now);
    keeper_.RetryNow(now);
    probes_.Restart(now);
}

bool RelayDaemon::Reload() {
    // For the library a broken or missing file means the defaults, without services; a typo, or an
    // editor that is just replacing the file, must not end every tunnel.
    const CheckedConfig checked = CheckReload(paths::ConfigFile(), !hasFile_);
    for (const std::string& fault : checked.faults) {
        RELAY_LOG(checked.unusable ? log::Error : log::Warning, "%s", fault.c_str());
    }
    const bool wasEnabled = conf_.enable;
    if (checked.unusable) {
        conf_.enable = conf_.GetEnableConf(); // it is in another file; all else stays as it was
        SwitchedFrom(wasEnabled);
        return false;
    }
    const std::string id = conf_.serverID;
    conf_ = SettingsAfter(conf_, checked.document);
    hasFile_ = !checked.document.isNull();
    if (conf_.serverID != id) { // an older copy of the file: the server knows the right one
        exchange_.RegisterAgain();
    }
    networkCheck_ = Clock::now(); // a change is dealt with where all changes are
    ApplyLogSettings(conf_);
    RELAY_LOG(log::Info, "configuration reloaded");
    keeper_.DropWithdrawn(conf_.services, Clock::now());
    SwitchedFrom(wasEnabled);
    return true;
}

void RelayDaemon::SwitchedFrom(bool wasEnabled) {
    if (wasEnabled && !conf_.enable) {
        RELAY_LOG(log::Notice, "the relay service is switched off");
        exchange_.Stop();
        alias_.Stop();
        keeper_.CloseAll();
    }
}

// --- network

void RelayDaemon::OnNetworkEvent(Time now) {
    if (networkCheck_ == Time::max()) {
        networkCheck_ = now + kNetworkSettles;
    }
}

void RelayDaemon::TakeNetworkChange(Time now) {
    NetworkConf current(true);
    current.mode = conf_.network.mode;
    std::set<std::string> addresses = OwnAddresses();
    if (current == conf_.network && addresses == addresses_) {
        return;
    }
    RELAY_LOG(log::Notice, "the network changed");
    conf_.network = current;
    addresses_ = std::move(addresses);
    if (conf_.enable) {
        exchange_.NetworkChanged(now);
        keeper_.DropLostAddresses(now);
        alias_.RetryNow(now);
    }
}

// --- stop

void RelayDaemon::Stop() {
    stopping_ = true;
    WriteStatus();
    exchange_.Stop();
    alias_.Stop();
    queue_.RemoveAll();
    for (Tunnel& tunnel : keeper_.Tunnels()) {
        tunnel.Destroy();
    }
    keeper_.Stop(kStopPatience);
    // A log-in that the stop cut off may have left its client or its password file.
    const std::string own = std::to_string(getpid()) + ".";
    EndStrays([&](const std::string& file) { return file.compare(0, own.size(), own) == 0; });
}

// --- status

RELAYD_STATE RelayDaemon::State() const {
    if (stopping_) {
        return RELAYD_STATE_LOGOUT;
    }
    return conf_.enable ? exchange_.State() : RELAYD_STATE_STOPED;
}

Json::Value RelayDaemon::ServiceStatus() const {
    Json::Value list(Json::arrayValue);
    for (const ServiceConf& service : conf_.services) {
        Json::Value& entry = list.append(Json::Value());
        entry["id"] = service.id;
        entry["name"] = service.name;
        entry["port"] = service.port;
        entry["up"] = keeper_.IsUp(service.id);
        entry["tunnel"] = keeper_.Describe(service.id);
        entry["local"] = ReachabilityWord(probes_.Found(service.id));
    }
    return list;
}

void RelayDaemon::WriteStatus() {
    const RELAYD_STATE state = State();
    if (state != shownState_) {
        shownState_ = state;
        since_ = Beginning();
        RELAY_LOG(log::Info, "state: %s", GetStateStr(state).c_str());
    }
    Json::Value status;
    status["pid"] = getpid();
    status["state"] = state;
    status["error"] = state == RELAYD_STATE_ERROR ? exchange_.Error() : RELAYD_RET_SUCCESS;
    status["serverID"] = conf_.serverID;
    status["service"] = ServiceStatus();
    status["alias"] = alias_.Describe();
    status["since"] = static_cast<Json::Int64>(since_.Seconds());
    status["version"] = ZARO_VERSION;
    status_.Write(status);
}

Json::Value RelayDaemon::Dump() const {
    Json::Value dump;
    conf_.Write(dump["config"], kFullForm);
    conf_.auth.Write(dump["config"]["auth"], AuthConf::kWithoutToken);
    queue_.Write(dump["queue"]);
    dump["tunnels"] = keeper_.Dump();
    dump["exchange"] = exchange_.Dump();
    dump["alias"] = alias_.Describe();
    dump["passes"] = static_cast<Json::UInt64>(passes_);
    dump["longest_ms"] = watch_.Dump();
    dump["state"] = State();
    MaskSecrets(dump);
    return dump;
}

} // namespace ZARO::Relay::app
