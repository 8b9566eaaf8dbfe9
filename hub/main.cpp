/// zarorelay-hub: reads the command line, runs the hub until a signal ends it.
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <optional>
#include <string>

#include "base/names.h"
#include "base/standard_descriptors.h"
#include "hub/backup.h"
#include "hub/hub.h"
#include "hub/log.h"
#include "hub/options.h"
#include "hub/store.h"

namespace {

using ZARO::RelayHub::CommandLine;
using ZARO::RelayHub::Hub;
using ZARO::RelayHub::HubOptions;
using ZARO::RelayHub::Roles;

constexpr rlim_t kPerPoll = 1;             // descriptors of a held request
constexpr rlim_t kPerTunnel = 3;           // its connection, twice, and its port
constexpr rlim_t kOtherDescriptors = 2048; // strangers, some visitors, and the hub's own

/// A device costs up to four descriptors, so the usual soft limit serves few of them.
void RaiseDescriptorLimit(const Roles& roles) {
    rlimit limit{};
    const rlim_t perDevice = (roles.control ? kPerPoll : 0) + (roles.relay ? kPerTunnel : 0);
    if (perDevice == 0 || getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = limit.rlim_max;
    const rlim_t now = setrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_max : before;
    const rlim_t devices = now < kOtherDescriptors ? 0 : (now - kOtherDescriptors) / perDevice;
    // The hub works with a lower limit as well: the listeners pause when it is reached.
    if (devices < ZARO::RelayHub::kMaxDevices) {
        ZARO::RelayHub::Log(ZARO::RelayHub::Level::Warning, "hub",
                            "a limit of %llu descriptors is enough for %llu devices only",
                            static_cast<unsigned long long>(now),
                            static_cast<unsigned long long>(devices));
    }
}

/// One line per listener. Whoever started the hub may wait for them.
void PrintListeners(const HubOptions& options, const Hub& hub) {
    const std::string host = ZARO::ForUrl(options.address);
    if (options.roles.control && options.httpPort >= 0) {
        printf("control http://%s:%d/Serv.php\n", host.c_str(), hub.HttpPort());
    }
    if (options.roles.control && options.httpsPort >= 0) {
        printf("control https://%s:%d/Serv.php\n", host.c_str(), hub.HttpsPort());
    }
    if (options.roles.alias) {
        printf("alias https://%s:%d\n", host.c_str(), hub.HttpsPort());
    }
    if (options.roles.relay && !options.relaySpare) { // a spare's port opens later, or never
        printf("relay ssh://%s:%d ports %d-%d\n", host.c_str(), hub.RelayPort(), options.firstPort,
               options.lastPort);
    }
    (void)fflush(stdout); // nobody may be reading
}

int Fail(const std::string& why) {
    (void)fprintf(stderr, "zarorelay-hub: %s\n", why.c_str());
    return 1;
}

int Copy(const CommandLine& line) {
    std::string error;
    return ZARO::RelayHub::BackUp(line.hub.data, line.backup, error) ? 0
                                                                     : Fail("--backup: " + error);
}

/// Waits until other processes have taken everything over, at most a minute. A signal cuts it
/// short.
void HandOver(Hub& hub, const sigset_t& ending) {
    constexpr timespec kLook{0, 200000000};
    constexpr int kLooks = 300;
    hub.BeginHandOver();
    for (int i = 0; i < kLooks && !hub.IsHandedOver(); ++i) {
        if (sigtimedwait(&ending, nullptr, &kLook) > 0) {
            return;
        }
    }
}

int Run(const CommandLine& line) {
    // Blocked before the first thread starts, so that only sigwait() below gets them.
    sigset_t ending;
    sigemptyset(&ending);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&ending, number);
    }
    (void)pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    umask(077);
    const rlimit noCore{0, 0};
    (void)setrlimit(RLIMIT_CORE, &noCore); // the memory holds keys and passwords
    ZARO::RelayHub::SetLogLevel(line.logLevel);

    Hub hub(line.hub);
    std::string error;
    if (!hub.Start(error)) {
        return Fail(error);
    }
    RaiseDescriptorLimit(line.hub.roles); // not before: a failed start prints a single line
    PrintListeners(line.hub, hub);
    int number = 0;
    (void)sigwait(&ending, &number);
    ZARO::RelayHub::Log(ZARO::RelayHub::Level::Info, "hub", "ends on signal %d", number);
    if (line.hub.drain && number == SIGTERM && !hub.IsUseless()) {
        HandOver(hub, ending);
    }
    hub.Stop();
    return hub.IsUseless() ? 1 : 0;
}

} // namespace

int main(int argc, char** argv) {
    ZARO::FillStandardDescriptors();
    try {
        CommandLine line;
        const std::optional<int> code = ZARO::RelayHub::ParseCommandLine(argc, argv, line);
        if (code) {
            return *code;
        }
        return line.backup.empty() ? Run(line) : Copy(line);
    } catch (const std::exception& fault) {
        return Fail(fault.what());
    }
}
