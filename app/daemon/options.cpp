#include "app/daemon/options.h"

#include <exception>
#include <iostream>

#include <CLI/CLI.hpp>

namespace ZARO::Relay::app {

namespace {

constexpr int kGoOn = -1;
constexpr int kUsage = 2;

} // namespace

int ReadOptions(int argc, char** argv, Options& options) {
    CLI::App app("Makes the services of this device reachable from the internet, without port "
                 "forwarding.",
                 "zarorelayd");
    app.set_version_flag("--version", "zarorelayd " ZARO_VERSION);
    app.add_option("--root", options.root,
                   "Take every file of the device from below this folder (an appliance: /)")
        ->type_name("DIR")
        ->check(CLI::Validator(CLI::ExistingDirectory).description(""));
    app.add_flag("--foreground", options.foreground, "Do not go into the background");
    const CLI::Option* check =
        app.add_option("--check", options.checkFile,
                       "Say what is wrong with a configuration, by default the device's own, and "
                       "exit: 0 nothing, 2 something")
            ->type_name("FILE")
            ->expected(0, 1);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& printed) {
        return app.exit(printed);
    } catch (const CLI::ParseError& fault) {
        std::cerr << "zarorelayd: " << fault.what() << " (see --help)" << std::endl;
        return kUsage;
    } catch (const std::exception& fault) {
        std::cerr << "zarorelayd: " << fault.what() << std::endl;
        return kUsage;
    }
    options.check = check->count() > 0;
    return kGoOn;
}

} // namespace ZARO::Relay::app
