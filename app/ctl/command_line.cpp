#include "app/ctl/command_line.h"

#include <cstring>
#include <exception>
#include <iostream>
#include <vector>

#include <CLI/CLI.hpp>

#include "app/ctl/check.h"
#include "app/ctl/control.h"
#include "app/ctl/join.h"
#include "app/ctl/publish.h"
#include "app/ctl/report.h"
#include "app/ctl/services.h"
#include "app/ctl/settings.h"
#include "app/ctl/status.h"

namespace ZARO::Relay::ctl {

namespace {

constexpr int kGoOn = -1;
constexpr int kLongestWait = 86400; // seconds: a day, after which a hub forgets who waits
constexpr const char* kVersion = "zarorelayctl " ZARO_VERSION;

/// The values of all options and arguments.
struct Values {
    StatusOptions status;
    JoinOptions join;
    PublishOptions publish;
    std::string text;
    bool json = false;
    bool verify = false;
};

using Action = std::function<int()>;

/// Adds commands to one parser. The last one on the command line sets the action.
class Commands {
public:
    Commands(CLI::App& parser, Action& action, Values& values)
        : parser_(parser), action_(action), values_(values) {}

    CLI::App* Add(const char* name, const char* help, const Action& action) {
        CLI::App* command = parser_.add_subcommand(name, help);
        command->fallthrough(); // --root may come last
        if (action) {
            command->callback([this, action] { action_ = action; });
        } else {
            command->require_subcommand(1);
        }
        return command;
    }

    void AddWithText(const char* name, const char* help, const char* argument,
                     int (*run)(const std::string&)) {
        Values& values = values_;
        Add(name, help, [&values, run] { return run(values.text); })
            ->add_option(argument, values_.text)
            ->required()
            ->type_name("");
    }

    void AddWithJson(const char* name, const char* help, int (*run)(bool)) {
        Values& values = values_;
        Add(name, help, [&values, run] {
            return run(values.json);
        })->add_flag("--json", values_.json, "One JSON document");
    }

private:
    CLI::App& parser_;
    Action& action_;
    Values& values_;
};

void DescribeDaemon(Commands& commands, Values& values) {
    commands.Add("start", "Start the daemon; ends with its exit code", Start);
    commands.Add("stop", "Stop the daemon", Stop);
    commands.Add("restart", "Stop the daemon, then start it", Restart);
    commands.Add("reload", "Make the daemon read its configuration again", Reload);
    CLI::App* status = commands.Add("status", "Show how the daemon and its services are doing",
                                    [&values] { return ShowStatus(values.status); });
    status->add_flag("--json", values.status.json, "One JSON document");
    status->add_flag("--watch", values.status.watch, "Show it again whenever it changes");
    status->add_option("--service", values.status.service, "Of one service alone")->type_name("ID");
    commands.Add("debug", "Print the daemon's inner state as JSON", Debug);
    commands.Add("enable", "Switch the relay service on", [] { return Switch(true); });
    commands.Add("disable", "Switch the relay service off", [] { return Switch(false); });
}

void DescribeHub(Commands& commands, Values& values) {
    CLI::App* join = commands.Add("join", "Join a hub, with or without an invitation",
                                  [&values] { return Join(values.join); });
    join->add_option("URL", values.join.url, "Such as https://relay.example.org:8443")
        ->required()
        ->type_name("");
    join->add_option("CODE", values.join.code,
                     "The code that the hub's operator gave you; - reads it")
        ->type_name("");
    join->add_option("--wait", values.join.wait,
                     "How long to wait for the operator without a code (600)")
        ->type_name("SECONDS")
        ->check(CLI::Range(0, kLongestWait));
    commands.Add("leave", "Leave the hub; the device is as it was before", Leave);
    CLI::App* publish = commands.Add("publish", "Let visitors open a port of this device",
                                     [&values] { return Publish(values.publish); });
    publish->add_option("PORT|ID", values.publish.target, "The port, or a service's id")
        ->required()
        ->type_name("");
    publish->add_option("--id", values.publish.id, "The new service's id")->type_name("ID");
    publish->add_option("--title", values.publish.title, "Its name for people")->type_name("TEXT");
    commands.AddWithText("unpublish", "Withdraw what was published", "PORT|ID", Unpublish);
}

/// Takes a code out of the process list.
void Hide(const std::string& code, int argc, char** argv) {
    for (int i = 1; i < argc && !code.empty(); ++i) {
        if (code == argv[i]) {
            memset(argv[i], 'x', code.size());
        }
    }
}

void DescribeSettings(Commands& commands, Commands& service, Commands& alias, Commands& log,
                      Values& values) {
    commands
        .Add("id", "Print the server id",
             [&values] { return values.verify ? VerifyServerId(values.text) : ShowServerId(); })
        ->add_option_function<std::string>(
            "--verify",
            [&values](const std::string& id) {
                values.text = id;
                values.verify = true;
            },
            "Tell whether an id is this device's: 0 yes, 1 no")
        ->type_name("ID");
    commands.AddWithJson("check", "Check every link up to the relay, name what is broken",
                         CheckChain);
    commands.Add("version", "Print the version", [] {
        std::cout << kVersion << std::endl;
        return kSuccess;
    });
    service.AddWithJson("list", "The services of this device", ListServices);
    service.AddWithText("add", "Publish a service", "ID", AddService);
    service.AddWithText("remove", "Withdraw a service", "ID", RemoveService);
    alias.AddWithJson("show", "The alias and its last outcome", ShowAlias);
    alias.AddWithText("set", "Take an alias", "NAME", [](const std::string& name) {
        return name.empty()
                   ? Fail(kNoAnswer, "an alias is not empty", "see: zarorelayctl alias clear")
                   : SetAlias(name);
    });
    alias.Add("clear", "Give the alias up", [] { return SetAlias(""); });
    log.AddWithText("start", "Write a debug log", "FILE", StartLog);
    log.Add("stop", "End the debug log", StopLog);
}

int Parse(CLI::App& parser, int argc, char** argv) {
    try {
        parser.parse(argc, argv);
        return kGoOn;
    } catch (const CLI::Success& printed) {
        return parser.exit(printed);
    } catch (const std::exception& fault) {
        const std::vector<std::string> rest = parser.remaining(true);
        return Fail(kNoAnswer,
                    rest.empty() ? fault.what() : "\"" + rest.front() + "\" was not expected",
                    "see: zarorelayctl --help");
    }
}

} // namespace

int ReadCommandLine(int argc, char** argv, CommandLine& line) {
    CLI::App parser(
        "Controls the relay daemon, which makes this device reachable from the internet.",
        "zarorelayctl");
    parser.set_version_flag("--version", kVersion);
    parser.require_subcommand(1);
    parser
        .add_option("--root", line.root,
                    "Take every file of the device from below this folder (an appliance: /)")
        ->type_name("DIR");
    auto values = std::make_shared<Values>(); // lives as long as the action
    Action chosen;
    Commands commands(parser, chosen, *values);
    DescribeDaemon(commands, *values);
    DescribeHub(commands, *values);
    Commands service(*commands.Add("service", "The published services", nullptr), chosen, *values);
    Commands alias(*commands.Add("alias", "The name of the device", nullptr), chosen, *values);
    Commands log(*commands.Add("log", "The debug log", nullptr), chosen, *values);
    DescribeSettings(commands, service, alias, log, *values);
    const int code = Parse(parser, argc, argv);
    Hide(values->join.code, argc, argv);
    line.action = [values, chosen] { return chosen(); };
    return code;
}

} // namespace ZARO::Relay::ctl
