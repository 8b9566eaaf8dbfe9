/// The processes with the simulated devices.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <json/value.h>

#include "base/unique_fd.h"
#include "bench/fleet_measure.h"
#include "tests/support/process.h"

namespace ZARO::Fleet {

/// For the main thread. Methods throw when a process with devices is gone.
class Swarm : NoCopy {
public:
    using Address = std::pair<std::string, int>;

    /// `devices` are spread over as few processes as descriptors allow, but at least two. Their
    /// sockets and logs are in `folder`.
    Swarm(int devices, const std::string& folder);

    int Size() const { return size_; }
    /// Has every process do this.
    void Tell(const std::string& command);
    /// Has the processes do it to their shares of `count` devices.
    void Tell(const std::string& command, int count);
    /// The sums over all processes; "most_…" is the highest.
    Json::Value Report();
    /// The seconds from the mark until each device that had lost something was back, in order.
    std::vector<double> Back();
    /// Where the visitors of the first `count` devices of a process come.
    std::vector<Address> Ports(std::size_t process, int count);
    std::size_t Processes() const { return members_.size(); }

    /// Waits until the sum called `name` is at least `count`. Returns the seconds that it took, or
    /// less than 0 when it is not by then.
    double WaitFor(const char* name, int count, seconds limit);

    Usage Take() const;

private:
    struct Member {
        std::unique_ptr<Process> process;
        UniqueFd socket;
    };

    Json::Value Ask(const Member& member, const std::string& command) const;

    int size_;
    std::vector<Member> members_;
};

} // namespace ZARO::Fleet
