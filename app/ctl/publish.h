/// Publishing a local port in one command.
#pragma once

#include <string>

namespace ZARO::Relay::ctl {

struct PublishOptions {
    std::string target; ///< a port or a service's id
    std::string id;     ///< for a port without a definition; empty: made of the title or the port
    std::string title;  ///< the same; empty for none
};

// Each prints what there is to say and gives the program's exit code.

/// Defines the service if need be, publishes it and waits until visitors can open it, 30 s at most.
int Publish(const PublishOptions& options);

/// Withdraws a service by its port or id. Removes a definition that Publish has made.
int Unpublish(const std::string& target);

} // namespace ZARO::Relay::ctl
