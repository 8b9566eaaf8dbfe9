/// The connections of one web listener, a bounded number.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace ZARO::RelayHub {

class WebConnection;

/// Any thread may call any method; but WaitUntilEmpty() none blocks, and all but Close() and All()
/// take the same time however many connections there are.
class WebClients {
public:
    struct Client {
        std::weak_ptr<WebConnection> connection;
        bool isIdle = true;
    };
    using Place = std::list<Client>::iterator;

    /// At most `most` connections at a time.
    explicit WebClients(std::size_t most) : most_(most) {}

    /// Whether there is room for one more, or soon will be.
    bool MayAccept() const;
    /// Adds a connection, which counts as idle from now on. When there are too many, `toEnd` is the
    /// one that has been idle longest. False after Close(). `place` is set before any other thread
    /// sees the connection.
    bool Add(const std::shared_ptr<WebConnection>& connection, std::optional<Place>& place,
             std::shared_ptr<WebConnection>& toEnd);
    void Remove(Place place);
    /// A whole request came.
    void SetBusy(Place place);
    /// It waits for its next request from now on.
    void SetIdle(Place place);

    /// No further connection is added.
    void Close();
    bool IsClosed() const;
    std::vector<std::shared_ptr<WebConnection>> All() const;
    /// False when some are left after `time`.
    bool WaitUntilEmpty(std::chrono::milliseconds time);

private:
    mutable std::mutex mutex_;
    const std::size_t most_;
    std::list<Client> idle_; ///< the one that has been idle longest comes first
    std::list<Client> busy_;
    bool closed_ = false;
    std::condition_variable gone_;
};

} // namespace ZARO::RelayHub
