#include "hub/options.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "base/names.h"
#include "hub/database_url.h"

namespace ZARO::RelayHub {

namespace {

constexpr int kUsage = 2; // exit code for a wrong command line

/// What the command line says, before it becomes a CommandLine.
struct Given {
    explicit Given(CommandLine& target) : line(target) {}

    CommandLine& line;
    std::string ports = "20000-29999";
    std::string roles;
    std::string databaseFile;
    std::string admit = "listed";
    long aliasTtl = 259200;
    int hold = 50;
};

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

bool IsRelayName(const std::string& text) {
    return IsMadeOf(text, 63, "-_");
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

/// Takes "control,relay" apart.
bool ParseRoles(const std::string& text, Roles& roles) {
    roles = {false, false, false};
    std::istringstream names(text + ",");
    bool good = true;
    for (std::string name; std::getline(names, name, ',');) {
        bool* const role = name == "control" ? &roles.control
                           : name == "alias" ? &roles.alias
                           : name == "relay" ? &roles.relay
                                             : nullptr;
        good = good && role != nullptr;
        if (role != nullptr) {
            *role = true;
        }
    }
    return good;
}

void DescribeListeners(CLI::App& app, Given& given) {
    const CLI::Validator address = Expect("an IP address", IsAddress);
    const CLI::Validator host = Expect("a host name or an IP address", IsHostOrAddress);
    const auto isRange = [](const std::string& text) {
        int first = 0;
        int last = 0;
        return ParseRange(text, first, last);
    };
    HubOptions& hub = given.line.hub;
    app.add_option("--address", hub.address, "where to listen")->check(address);
    app.add_option("--http-port", hub.httpPort, "plain HTTP; 0 = any, -1 = off")
        ->check(Number(-1, 65535));
    app.add_option("--https-port", hub.httpsPort, "HTTPS; 0 = any, -1 = off")
        ->check(Number(-1, 65535));
    app.add_option("--relay-port", hub.relayPort, "SSH; 0 = any, -1 = off")
        ->check(Number(-1, 65535));
    app.add_option("--ports", given.ports, "the tunnels' ports, FIRST-LAST")
        ->check(Expect("a range of ports like 20000-29999", isRange));
    app.add_option("--host", hub.hosts, "a further name for the certificate; may be repeated")
        ->check(host);
    app.add_option("--relay-host", hub.relayHost, "what devices are told to connect to")
        ->check(host);
    app.add_option("--visitor-address", hub.visitorAddress, "where the tunnels' ports listen")
        ->check(address);
}

void DescribeFleet(CLI::App& app, Given& given) {
    const auto areRoles = [](const std::string& text) {
        Roles roles;
        return ParseRoles(text, roles);
    };
    // Says nothing of the text, which may hold a password.
    const CLI::Validator url([](const std::string& text) { return FaultOfUrl(text); }, "");
    const CLI::Validator file =
        Expect("a file", [](const std::string& text) { return !text.empty(); });
    HubOptions& hub = given.line.hub;
    app.add_option("--roles", given.roles, "what this process is: any of control,alias,relay")
        ->check(Expect("one or more of control,alias,relay", areRoles));
    CLI::Option* const database =
        app.add_option("--database", hub.database, "URL of a PostgreSQL database")->check(url);
    app.add_option("--database-file", given.databaseFile, "file that holds the database's URL")
        ->check(file)
        ->excludes(database);
    CLI::Option* const name =
        app.add_option("--relay-name", hub.relayName, "which relay this process is")
            ->check(Expect("1 to 63 letters, digits, - or _", IsRelayName));
    app.add_flag("--relay-spare", hub.relaySpare, "wait for a relay to be gone and take its place")
        ->excludes(name);
    app.add_flag("--drain", hub.drain, "on SIGTERM, first hand everything over to other processes");
    app.add_option("--backup", given.line.backup, "copy the SQLite database to this new file, end")
        ->check(file);
}

void Describe(CLI::App& app, Given& given) {
    app.add_option("--data", given.line.hub.data, "folder for everything that is kept")->required();
    DescribeListeners(app, given);
    app.add_option("--admit", given.admit, "which unknown devices may join: listed or open")
        ->check(Expect("listed or open",
                       [](const std::string& text) { return text == "listed" || text == "open"; }));
    app.add_option("--alias-ttl", given.aliasTtl, "seconds that an alias lasts unrenewed")
        ->check(Number(1, 1000000000));
    app.add_option("--hold", given.hold, "seconds that a wait command is held")
        ->check(Number(1, 3600));
    app.add_option("--log-level", given.line.logLevel, "3 = errors only, up to 7 = debug")
        ->check(Number(3, 7));
    DescribeFleet(app, given);
    app.set_version_flag("--version", "zarorelay-hub " ZARO_VERSION);
}

/// Why these options can't be meant together; empty when they can.
std::string Contradiction(const Given& given) {
    const HubOptions& hub = given.line.hub;
    const bool named = !given.roles.empty(); // else a role without a listener is just left out
    if (!given.line.backup.empty() && (!hub.database.empty() || !given.databaseFile.empty())) {
        return "--backup: copies SQLite only; use pg_dump for a PostgreSQL database";
    }
    if (named && hub.roles.control && hub.httpPort < 0 && hub.httpsPort < 0) {
        return "--roles: control needs --http-port or --https-port";
    }
    if (named && hub.roles.alias && hub.httpsPort < 0) {
        return "--roles: alias needs --https-port";
    }
    if (named && hub.roles.relay && hub.relayPort < 0) {
        return "--roles: relay needs --relay-port";
    }
    if (hub.relaySpare && (!hub.roles.relay || hub.relayPort < 0)) {
        return "--relay-spare: needs the role relay";
    }
    return "";
}

/// Makes roles and listeners agree.
void Match(HubOptions& hub) {
    Roles& roles = hub.roles;
    roles.control = roles.control && (hub.httpPort >= 0 || hub.httpsPort >= 0);
    roles.alias = roles.alias && hub.httpsPort >= 0;
    roles.relay = roles.relay && hub.relayPort >= 0;
    hub.httpPort = roles.control ? hub.httpPort : -1;
    hub.httpsPort = roles.control || roles.alias ? hub.httpsPort : -1;
    hub.relayPort = roles.relay ? hub.relayPort : -1;
}

/// False with the reason in `error`.
bool Finish(Given& given, std::string& error) {
    HubOptions& hub = given.line.hub;
    (void)ParseRange(given.ports, hub.firstPort, hub.lastPort); // checked already
    if (!given.roles.empty()) {
        (void)ParseRoles(given.roles, hub.roles); // checked already
    }
    hub.admitsAll = given.admit == "open";
    hub.aliasTtl = std::chrono::seconds(given.aliasTtl);
    hub.hold = std::chrono::seconds(given.hold);
    error = Contradiction(given);
    if (!error.empty()) {
        return false;
    }
    Match(hub);
    if (!given.databaseFile.empty() && !ReadDatabaseUrl(given.databaseFile, hub.database, error)) {
        error = "--database-file: " + error;
        return false;
    }
    return true;
}

int Refuse(const std::string& why) {
    (void)fprintf(stderr, "zarorelay-hub: %s\n", why.c_str()); // nobody may be reading
    return kUsage;
}

} // namespace

std::optional<int> ParseCommandLine(int argc, char** argv, CommandLine& line) {
    const std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    HideSecrets(argc, argv);
    CLI::App app("The server side of zarorelayd: control server, alias server and SSH relay.",
                 "zarorelay-hub");
    Given given(line);
    try {
        Describe(app, given);
        app.parse(std::vector<std::string>(words.rbegin(), words.rend())); // as the parser wants
    } catch (const CLI::Success& wanted) {                                 // --help, --version
        return app.exit(wanted);
    } catch (const CLI::Error& fault) {
        return Refuse(WithoutSecrets(fault.what(), words));
    }
    std::string error;
    return Finish(given, error) ? std::nullopt : std::optional<int>(Refuse(error));
}

} // namespace ZARO::RelayHub
