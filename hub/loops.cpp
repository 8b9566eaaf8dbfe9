#include "hub/loops.h"

#include <algorithm>
#include <exception>
#include <system_error>

#include "hub/log.h"

namespace ZARO::RelayHub {

namespace {

constexpr std::size_t kMostLoops = 8;

/// They wait for the database, so more of them than cores are of use.
constexpr std::size_t kWorkers = 4;

} // namespace

Loops::Loops(std::size_t count) : workers_(std::make_unique<asio::thread_pool>(kWorkers)) {
    const std::size_t cores =
        std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, kMostLoops);
    for (std::size_t i = 0; i < (count == 0 ? cores : count); ++i) {
        loops_.push_back(std::make_unique<Loop>(1)); // 1 = one thread runs it
        guards_.emplace_back(loops_.back()->get_executor());
    }
}

bool Loops::Start(std::string& error) {
    try {
        for (const auto& loop : loops_) {
            threads_.emplace_back([&running = *loop] { Run(running); });
        }
        return true;
    } catch (const std::system_error& fault) {
        error = std::string("can't start a thread: ") + fault.what();
        return false;
    }
}

void Loops::Stop() {
    workers_->join();
    for (const auto& loop : loops_) {
        loop->stop();
    }
    for (std::thread& thread : threads_) {
        thread.join();
    }
    threads_.clear();
}

void Loops::Run(Loop& loop) noexcept {
    for (;;) {
        try {
            (void)loop.run();
            return; // stopped
        } catch (const std::exception& fault) {
            Failed(fault);
        }
    }
}

void Loops::Failed(const std::exception& fault) noexcept {
    Log(Level::Error, "hub", "a piece of work failed: %s", fault.what());
}

} // namespace ZARO::RelayHub
