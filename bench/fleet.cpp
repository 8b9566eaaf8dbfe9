/// A hub and a whole fleet on one machine: start, idling, mass losses, churn and load.
///
///   fleet [DEVICES] [--postgres] [--hosts 2] [--hub FILE] [--phase NAME …] [--idle SECONDS]
///
/// Exit code 1 when a bound is missed, 2 when it can't run at all.
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>

#include <CLI/CLI.hpp>

#include "bench/fleet_phases.h"
#include "tests/support/postgres.h"

namespace {

using namespace ZARO::Fleet;

struct Options {
    int devices = 10000;
    bool postgres = false;
    int hosts = 1;
    std::string hub = ZARO_HUB;
    std::vector<std::string> phases;
    int idle = 60;
};

const std::map<std::string, void (Phases::*)()>& AllPhases() {
    static const std::map<std::string, void (Phases::*)()> phases = {
        {"idle", &Phases::Idle},
        {"relay", &Phases::LoseRelay},
        {"control", &Phases::LoseControl},
        {"both", &Phases::LoseBoth},
        {"churn", &Phases::Churn},
        {"load", &Phases::Load},
        {"database", &Phases::LoseDatabase},
        {"move", &Phases::Move},
        {"host", &Phases::LoseHost},
    };
    return phases;
}

/// What is measured unless the command line says otherwise, in order.
std::vector<std::string> UsualPhases(const Options& options, const FleetHub& hub) {
    if (options.hosts > 1) {
        return {"move", "host"};
    }
    if (!hub.HasRoles()) {
        return {"idle", "load", "both", "churn"};
    }
    std::vector<std::string> phases = {"idle", "load", "relay", "control", "both", "churn"};
    if (options.postgres) {
        phases.emplace_back("database");
    }
    return phases;
}

bool RaiseDescriptorLimit() {
    rlimit limit{};
    return getrlimit(RLIMIT_NOFILE, &limit) == 0 &&
           (limit.rlim_cur = limit.rlim_max, setrlimit(RLIMIT_NOFILE, &limit) == 0);
}

/// A folder that goes with this object.
struct Folder : NoCopy {
    Folder() {
        if (mkdtemp(path.data()) == nullptr) {
            throw std::runtime_error("can't make " + path);
        }
    }
    ~Folder() {
        std::error_code ignored; // what can't be removed stays in the temporary folder
        fs::remove_all(path, ignored);
    }
    std::string path = (fs::temp_directory_path() / "zaro-fleet.XXXXXX").string();
};

void Run(const Options& options) {
    const Folder folder;
    std::optional<PostgresCluster> cluster;
    if (options.postgres) {
        cluster.emplace();
    }
    constexpr int kHold = 50;
    // Devices move between two hosts at each poll: often, but each time with a handshake of TLS.
    constexpr int kMovesPerSecond = 200;
    const int shortHold = std::clamp(options.devices / kMovesPerSecond, 10, kHold);
    FleetHub hub({options.hub, folder.path, cluster ? cluster->Database("fleet") : "",
                  options.devices, options.hosts, options.hosts > 1 ? shortHold : kHold});
    Swarm swarm(options.devices, folder.path);
    printf("%d devices in %zu processes, %s, the hub in %d processes\n", options.devices,
           swarm.Processes(), options.postgres ? "PostgreSQL" : "SQLite", hub.Running());
    Phases phases(hub, swarm, seconds(options.idle),
                  [&cluster](bool on) { on ? cluster->Start() : cluster->Kill(); });
    phases.Begin();
    for (const std::string& name :
         options.phases.empty() ? UsualPhases(options, hub) : options.phases) {
        (phases.*AllPhases().at(name))();
    }
    printf("\n");
    Check(hub.End(), "the hub ended in order", "exit code 0");
    const std::string complaints = hub.Complaints();
    printf("%s%s", complaints.empty() ? "" : "\nwhat the hub complained of:\n", complaints.c_str());
}

void Describe(CLI::App& app, Options& options) {
    std::vector<std::string> names;
    for (const auto& [name, phase] : AllPhases()) {
        names.push_back(name);
    }
    app.add_option("DEVICES", options.devices, "how many")->check(CLI::Range(20, 60000));
    app.add_flag("--postgres", options.postgres, "a PostgreSQL server of its own, not SQLite");
    app.add_option("--hosts", options.hosts, "hosts of the hub; two need PostgreSQL")
        ->check(CLI::Range(1, 2));
    app.add_option("--hub", options.hub, "the hub to measure")->check(CLI::ExistingFile);
    app.add_option("--phase", options.phases, "only this after the start; may be repeated")
        ->check(CLI::IsMember(names));
    app.add_option("--idle", options.idle, "seconds of idling")->check(CLI::Range(1, 3600));
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("A hub and a whole fleet on one machine.", "fleet");
    Describe(app, options);
    try {
        app.parse(argc, argv);
        options.postgres = options.postgres || options.hosts > 1;
        for (const std::string& phase : options.phases) {
            if ((phase == "database" && !options.postgres) ||
                ((phase == "move" || phase == "host") && options.hosts < 2)) {
                throw CLI::ValidationError("--phase", phase + " needs --postgres or --hosts 2");
            }
        }
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    (void)setvbuf(stdout, nullptr, _IOLBF, 0);
    try {
        if (!RaiseDescriptorLimit()) {
            throw std::runtime_error("can't raise the limit of open files");
        }
        Run(options);
    } catch (const std::exception& fault) {
        (void)fprintf(stderr, "fleet: %s\n", fault.what());
        return 2;
    }
    return Missed() == 0 ? 0 : 1;
}
