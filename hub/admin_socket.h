/// The socket in the data folder through which the operator's program reaches the hub.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/asio/steady_timer.hpp>

#include "base/unique_fd.h"
#include "hub/acceptor.h"
#include "hub/admin_connection.h"
#include "hub/loops.h"

namespace ZARO::RelayHub {

/// Its name in the data folder.
constexpr char kAdminSocket[] = "admin.sock";

/// Of the processes that share a folder, one listens; when that one is gone, another takes over
/// within a second. Any thread may call any method. It is held by shared_ptr; `loops` must live
/// until they have stopped.
class AdminSocket : public std::enable_shared_from_this<AdminSocket> {
public:
    static constexpr std::size_t kMostConnections = 8;

    AdminSocket(Loops& loops, std::string folder, AdminAnswer answer);

    /// Listens, unless another process of the folder does. When that fails, which is logged, it
    /// tries again and again.
    void Start();
    /// Ends every connection and gives the socket up. Requests under way are carried out.
    void Stop();

private:
    using Connection = std::shared_ptr<AdminConnection>;

    /// Tries again in a second.
    void Wait();
    /// False when another process has the folder's socket, or it failed.
    bool Listen();
    /// The same with the lock. `taken` = another process has it. False with errno.
    bool Bind(bool& taken);
    void Note(int error);
    /// Runs on the loop's thread.
    void Accept(UniqueFd fd);

    Loops& loops_;
    Loop& loop_;
    const std::string folder_;
    const AdminAnswer answer_;
    asio::steady_timer timer_; ///< for the thread of the loop
    std::atomic<bool> ended_{false};

    std::mutex mutex_; ///< guards the following
    UniqueFd lock_;    ///< this process has the socket; what it left is replaced by the next one
    std::shared_ptr<Acceptor> acceptor_;
    std::vector<std::weak_ptr<AdminConnection>> connections_;
    int error_ = 0; ///< why it does not listen, as logged
};

} // namespace ZARO::RelayHub
