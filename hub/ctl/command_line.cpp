#include "hub/ctl/command_line.h"

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "hub/ctl/changes.h"
#include "hub/ctl/listings.h"
#include "hub/ctl/report.h"

namespace ZARO::RelayHub::ctl {

namespace {

constexpr int kGoOn = -1;
constexpr int kMostUses = 10000; // as many as a hub has devices

/// The values of all options and arguments.
struct Values {
    std::string data = "/var/lib/zarorelay-hub";
    std::string text, state, from;
    std::string expires = "7d";
    int uses = 1;
    bool json = false;
};

using Action = std::function<int(const Values&)>;

CLI::Validator Expect(const std::string& what, std::function<bool(const std::string&)> holds) {
    return CLI::Validator(
        [what, holds = std::move(holds)](const std::string& text) {
            return holds(text) ? std::string() : "expected " + what + ", not \"" + text + "\"";
        },
        "");
}

/// Adds commands to one parser. The last one on the command line sets the action.
class Commands {
public:
    Commands(CLI::App& parser, Action& chosen, Values& values)
        : parser_(parser), chosen_(chosen), values_(values) {}

    CLI::App* Add(const char* name, const char* help, const Action& action) {
        CLI::App* command = parser_.add_subcommand(name, help);
        command->fallthrough(); // --data may come last
        command->callback([this, action] { chosen_ = action; });
        return command;
    }
    /// With a text as its argument.
    CLI::App* Add(const char* name, const char* help, const char* argument, const Action& action) {
        CLI::App* command = Add(name, help, action);
        command->add_option(argument, values_.text)
            ->required()
            ->type_name("")
            ->check(Expect("a text", [](const std::string& text) { return !text.empty(); }));
        return command;
    }
    CLI::App* WithJson(CLI::App* command) {
        command->add_flag("--json", values_.json, "One JSON document");
        return command;
    }

private:
    CLI::App& parser_;
    Action& chosen_;
    Values& values_;
};

void DescribeListings(Commands& commands, Values& values) {
    commands.WithJson(
        commands.Add("status", "Show how the hub and its fleet are doing",
                     [](const Values& given) { return ShowStatus(given.data, given.json); }));
    commands
        .WithJson(commands.Add(
            "devices", "List the devices",
            [](const Values& given) { return ListDevices(given.data, given.state, given.json); }))
        ->add_option("--state", values.state, "Only those that are pending, admitted or banned")
        ->type_name("STATE")
        ->check(Expect("pending, admitted or banned", [](const std::string& text) {
            return text == "pending" || text == "admitted" || text == "banned";
        }));
    commands.WithJson(commands.Add(
        "device", "Show a device and its services", "SERIAL|ID|ALIAS",
        [](const Values& given) { return ShowDevice(given.data, given.text, given.json); }));
    commands.WithJson(commands.Add("relays", "List the relays", [](const Values& given) {
        return ListRelays(given.data, given.json);
    }));
}

void DescribeAdmission(Commands& commands, Values& values) {
    CLI::App* invite =
        commands.Add("invite", "Print a code that admits a device", [](const Values& given) {
            return Invite(given.data, given.uses, *ParseTime(given.expires)); // checked already
        });
    invite->add_option("--uses", values.uses, "How many devices it admits; without it one")
        ->type_name("N")
        ->check(
            Expect("a number from 1 to " + std::to_string(kMostUses), [](const std::string& text) {
                char* end = nullptr;
                const long number = strtol(text.c_str(), &end, 10);
                return !text.empty() && *end == '\0' && number >= 1 && number <= kMostUses;
            }));
    invite->add_option("--expires", values.expires, "How long it is good for; without it 7d")
        ->type_name("TIME")
        ->check(Expect("a time like 30m, 12h or 7d, at most 365d",
                       [](const std::string& text) { return ParseTime(text).has_value(); }));
    commands
        .Add("admit", "Admit a pending device; lifts a ban", "SERIAL",
             [](const Values& given) { return Admit(given.data, given.text, given.from); })
        ->add_option("--from", values.from, "The one that asks from there, if several claim it")
        ->type_name("ADDRESS");
    commands.Add("ban", "Ban a device; its tunnels end at once", "SERIAL|ID|ALIAS",
                 [](const Values& given) { return Ban(given.data, given.text); });
    commands.Add("forget", "Remove all that is known of a device", "SERIAL|ID|ALIAS",
                 [](const Values& given) { return Forget(given.data, given.text); });
}

void DescribeUpkeep(Commands& commands) {
    commands.Add("drain", "Move a relay's tunnels to the others", "RELAY",
                 [](const Values& given) { return Drain(given.data, given.text); });
    commands.Add("backup", "Copy the hub's database to a new file", "FILE",
                 [](const Values& given) { return BackUp(given.data, given.text); });
}

int Parse(CLI::App& parser, int argc, char** argv) {
    try {
        parser.parse(argc, argv);
        return kGoOn;
    } catch (const CLI::Success& printed) {
        return parser.exit(printed);
    } catch (const std::exception& fault) {
        const std::vector<std::string> rest = parser.remaining(true);
        return Fail(kNotDone,
                    rest.empty() ? fault.what() : "\"" + rest.front() + "\" was not expected",
                    "see: zarorelay-hubctl --help");
    }
}

} // namespace

int ReadCommandLine(int argc, char** argv, std::function<int()>& action) {
    CLI::App parser("Controls a running zarorelay-hub: who may join, and how the fleet is doing.",
                    "zarorelay-hubctl");
    parser.set_version_flag("--version", "zarorelay-hubctl " ZARO_VERSION);
    parser.require_subcommand(1);
    const auto values = std::make_shared<Values>(); // lives as long as the action
    parser.add_option("--data", values->data, "The hub's folder")
        ->type_name("DIR")
        ->capture_default_str();
    Action chosen;
    Commands commands(parser, chosen, *values);
    DescribeListings(commands, *values);
    DescribeAdmission(commands, *values);
    DescribeUpkeep(commands);
    const int code = Parse(parser, argc, argv);
    action = [values, chosen] { return chosen(*values); };
    return code;
}

} // namespace ZARO::RelayHub::ctl
