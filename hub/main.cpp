/// zarorelay-hub: reads the command line, runs the hub until a signal ends it.
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <utility>

#include <CLI/CLI.hpp>

#include "base/names.h"
#include "base/standard_descriptors.h"
#include "hub/hub.h"
#include "hub/log.h"
#include "hub/store.h"

namespace {

using ZARO::IsAddress;
using ZARO::IsHostName;
using ZARO::RelayHub::Hub;
using ZARO::RelayHub::HubOptions;

constexpr int kUsage = 2; // exit code for a wrong command line

constexpr rlim_t kPerDevice = 4;           // descriptors: a held request, and three for a tunnel
constexpr rlim_t kOtherDescriptors = 2048; // strangers, some visitors, and the hub's own

CLI::Validator Expect(const std::string& what, std::function<bool(const std::string&)> holds) {
    return CLI::Validator(
        [what, holds = std::move(holds)](const std::string& text) {
            return holds(text) ? std::string() : "expected " + what + ", not \"" + text + "\"";
        },
        "");
}

bool IsNumber(const std::string& text, long low, long high) {
    char* end = nullptr;
    errno = 0;
    const long number = strtol(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0' && errno == 0 && number >= low && number <= high;
}

CLI::Validator Number(long low, long high) {
    const std::string range = std::to_string(low) + " to " + std::to_string(high);
    return Expect("a number from " + range,
                  [low, high](const std::string& text) { return IsNumber(text, low, high); });
}

bool IsHostOrAddress(const std::string& text) {
    return IsAddress(text) || IsHostName(text);
}

/// Takes "FIRST-LAST" apart.
bool ParseRange(const std::string& text, int& first, int& last) {
    const std::size_t dash = text.find('-');
    if (dash == std::string::npos || !IsNumber(text.substr(0, dash), 1, 65535) ||
        !IsNumber(text.substr(dash + 1), 1, 65535)) {
        return false;
    }
    first = atoi(text.c_str());
    last = atoi(text.c_str() + dash + 1);
    return first <= last;
}

struct CommandLine {
    HubOptions hub;
    std::string ports = "20000-29999";
    long aliasTtl = 259200;
    int hold = 50;
    int logLevel = 6;
};

void Describe(CLI::App& app, CommandLine& line) {
    const CLI::Validator address = Expect("an IP address", IsAddress);
    const CLI::Validator host = Expect("a host name or an IP address", IsHostOrAddress);
    const auto isRange = [](const std::string& text) {
        int first = 0;
        int last = 0;
        return ParseRange(text, first, last);
    };
    HubOptions& hub = line.hub;
    app.add_option("--data", hub.data, "folder for everything that is kept")->required();
    app.add_option("--address", hub.address, "where to listen")->check(address);
    app.add_option("--http-port", hub.httpPort, "plain HTTP; 0 = any, -1 = off")
        ->check(Number(-1, 65535));
    app.add_option("--https-port", hub.httpsPort, "HTTPS; 0 = any, -1 = off")
        ->check(Number(-1, 65535));
    app.add_option("--relay-port", hub.relayPort, "SSH; 0 = any, -1 = off")
        ->check(Number(-1, 65535));
    app.add_option("--ports", line.ports, "the tunnels' ports, FIRST-LAST")
        ->check(Expect("a range of ports like 20000-29999", isRange));
    app.add_option("--host", hub.hosts, "a further name for the certificate; may be repeated")
        ->check(host);
    app.add_option("--relay-host", hub.relayHost, "what devices are told to connect to")
        ->check(host);
    app.add_option("--visitor-address", hub.visitorAddress, "where the tunnels' ports listen")
        ->check(address);
    app.add_option("--alias-ttl", line.aliasTtl, "seconds that an alias lasts unrenewed")
        ->check(Number(1, 1000000000));
    app.add_option("--hold", line.hold, "seconds that a wait command is held")
        ->check(Number(1, 3600));
    app.add_option("--log-level", line.logLevel, "3 = errors only, up to 7 = debug")
        ->check(Number(3, 7));
    app.set_version_flag("--version", "zarorelay-hub " ZARO_VERSION);
}

/// A connection costs one to three descriptors, so the usual soft limit serves few devices.
void RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = limit.rlim_max;
    const rlim_t now = setrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_max : before;
    const rlim_t devices = now < kOtherDescriptors ? 0 : (now - kOtherDescriptors) / kPerDevice;
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
    if (options.httpPort >= 0) {
        printf("control http://%s:%d/Serv.php\n", host.c_str(), hub.HttpPort());
    }
    if (options.httpsPort >= 0) {
        printf("control https://%s:%d/Serv.php\n", host.c_str(), hub.HttpsPort());
        printf("alias https://%s:%d\n", host.c_str(), hub.HttpsPort());
    }
    if (options.relayPort >= 0) {
        printf("relay ssh://%s:%d ports %d-%d\n", host.c_str(), hub.RelayPort(), options.firstPort,
               options.lastPort);
    }
    (void)fflush(stdout); // nobody may be reading
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
        (void)fprintf(stderr, "zarorelay-hub: %s\n", error.c_str());
        return 1;
    }
    RaiseDescriptorLimit(); // not before: a failed start prints a single line
    PrintListeners(line.hub, hub);
    int number = 0;
    (void)sigwait(&ending, &number);
    ZARO::RelayHub::Log(ZARO::RelayHub::Level::Info, "hub", "ends on signal %d", number);
    hub.Stop();
    return 0;
}

/// The exit code, or nothing when the hub is to run.
std::optional<int> Parse(int argc, char** argv, CommandLine& line) {
    CLI::App app("The server side of zarorelayd: control server, alias server and SSH relay.",
                 "zarorelay-hub");
    try {
        Describe(app, line);
        app.parse(argc, argv);
    } catch (const CLI::Success& wanted) { // --help, --version
        return app.exit(wanted);
    } catch (const CLI::Error& fault) {
        (void)fprintf(stderr, "zarorelay-hub: %s\n", fault.what());
        return kUsage;
    }
    (void)ParseRange(line.ports, line.hub.firstPort, line.hub.lastPort);
    line.hub.aliasTtl = std::chrono::seconds(line.aliasTtl);
    line.hub.hold = std::chrono::seconds(line.hold);
    return std::nullopt;
}

} // namespace

int main(int argc, char** argv) {
    ZARO::FillStandardDescriptors();
    try {
        CommandLine line;
        const std::optional<int> code = Parse(argc, argv, line);
        return code ? *code : Run(line);
    } catch (const std::exception& fault) {
        (void)fprintf(stderr, "zarorelay-hub: %s\n", fault.what());
        return 1;
    }
}
