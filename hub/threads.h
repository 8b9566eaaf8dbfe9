/// Threads that come and go with their connections.
#pragma once

#include <functional>
#include <list>
#include <mutex>
#include <thread>

namespace ZARO::RelayHub {

/// Runs each piece of work on a thread of its own, and joins all of these threads.
class ThreadSet {
public:
    ~ThreadSet() { JoinAll(); }

    /// False, and `work` does not run, when the system has no thread left. `work` must not throw.
    bool Start(std::function<void()> work) noexcept;
    /// Waits for all of them. Nobody may call Start() meanwhile.
    void JoinAll();
    std::size_t Count() const;

private:
    using Threads = std::list<std::thread>;

    mutable std::mutex mutex_;
    Threads running_;
    Threads ended_; ///< to be joined
};

} // namespace ZARO::RelayHub
