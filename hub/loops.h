/// The hub's threads: event loops that never block, and workers that may.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

namespace ZARO::RelayHub {

namespace asio = boost::asio;

/// One thread runs each loop, so what lives on one loop needs no lock.
using Loop = asio::io_context;

/// Owns every thread of the hub. Any thread may call any method unless it says otherwise. What runs
/// on a loop or a worker must not throw; an exception that gets out is logged and dropped.
class Loops {
public:
    /// 0 = one loop per core, at most 8.
    explicit Loops(std::size_t count = 0);
    Loops(const Loops&) = delete;
    Loops& operator=(const Loops&) = delete;
    ~Loops() { Stop(); }

    /// Starts the threads of the loops. False with the reason in `error`.
    bool Start(std::string& error);
    /// Waits until the workers are through with what was given to them, drops the rest of the
    /// loops' work and joins every thread. Not to be called from one of them; may be called twice.
    void Stop();

    std::size_t Count() const { return loops_.size(); }
    Loop& At(std::size_t number) { return *loops_[number]; }
    /// The loops in turn, for things to be spread over them.
    Loop& Next() { return *loops_[next_++ % loops_.size()]; }

    /// Runs `work`, which may block for the store, on a worker soon. Work is started in order, but
    /// several pieces run at a time.
    template <typename Work> void Block(Work&& work) {
        asio::post(*workers_, [body = std::forward<Work>(work)]() mutable { Guard(body); });
    }

private:
    template <typename Work> static void Guard(Work& work) noexcept {
        try {
            work();
        } catch (const std::exception& fault) {
            Failed(fault);
        }
    }
    static void Failed(const std::exception& fault) noexcept;
    static void Run(Loop& loop) noexcept;

    using WorkGuard = asio::executor_work_guard<Loop::executor_type>;

    std::vector<std::unique_ptr<Loop>> loops_;
    std::vector<WorkGuard> guards_; ///< keep the loops running while they have nothing to do
    std::vector<std::thread> threads_;
    std::unique_ptr<asio::thread_pool> workers_;
    std::atomic<std::size_t> next_{0};
};

} // namespace ZARO::RelayHub
