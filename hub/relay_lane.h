/// What the relay's sessions on one event loop share.
#pragma once

#include <chrono>
#include <memory>
#include <utility>
#include <vector>

#include "hub/host_key.h"
#include "hub/loops.h"

namespace ZARO::RelayHub {

/// For the thread of its loop.
struct RelayLane {
    /// How much is read from a visitor at once, so that it doesn't keep the others waiting.
    static constexpr std::size_t kChunk = std::size_t{64} * 1024;

    RelayLane(Loop& runs, SshBind from) : loop(runs), bind(std::move(from)) {}

    Loop& loop;
    const SshBind bind;
    std::chrono::steady_clock::time_point now{};          ///< read once per pass of a session
    std::vector<char> buffer = std::vector<char>(kChunk); ///< scratch area
};

/// A session, as seen by its visitors.
class RelayHost : public std::enable_shared_from_this<RelayHost> {
public:
    virtual ~RelayHost() = default;

    /// Makes the session serve its visitors soon. For the thread of its loop.
    virtual void Wake() = 0;
};

} // namespace ZARO::RelayHub
