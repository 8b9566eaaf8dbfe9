/// How the processes that share a database send each other messages through it.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "hub/waker.h"

namespace ZARO::RelayHub {

/// A connection of its own, which listens. For one thread. Methods throw DatabaseFault when the
/// connection is lost; then it is of no further use.
class BusLink {
public:
    /// `target` names the database as for Store::Open. Blocks while it connects.
    static std::unique_ptr<BusLink> Open(const std::string& target);
    virtual ~BusLink() = default;

    /// Sends a message to all that listen, this one included.
    virtual void Send(const std::string& text) = 0;
    /// Waits for messages until there are some, `waker` is woken or `limit` is over. Adds them to
    /// `texts`. False when some were lost.
    virtual bool Receive(std::chrono::milliseconds limit, const Waker& waker,
                         std::vector<std::string>& texts) = 0;
};

} // namespace ZARO::RelayHub
