#include "hub/threads.h"

#include <exception>
#include <utility>

namespace ZARO::RelayHub {

bool ThreadSet::Start(std::function<void()> work) noexcept {
    Threads ended;
    Threads fresh; // reaches the list only once its thread runs
    bool started = true;
    try {
        const std::lock_guard<std::mutex> lock(mutex_);
        ended.swap(ended_);
        const auto place = fresh.emplace(fresh.end());
        // The new thread can't look for its place before this lock is released.
        *place = std::thread([this, place, body = std::move(work)] {
            body();
            const std::lock_guard<std::mutex> ending(mutex_);
            ended_.splice(ended_.end(), running_, place);
        });
        running_.splice(running_.end(), fresh);
    } catch (const std::exception&) {
        started = false;
    }
    for (std::thread& thread : ended) {
        thread.join();
    }
    return started;
}

void ThreadSet::JoinAll() {
    for (;;) {
        std::thread thread;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            Threads& from = ended_.empty() ? running_ : ended_;
            if (from.empty()) {
                return;
            }
            // A running thread keeps its place in the list until it ends; only the handle goes.
            if (&from == &ended_) {
                thread = std::move(from.front());
                from.pop_front();
            } else {
                thread = std::move(from.front());
            }
        }
        if (thread.joinable()) {
            thread.join();
        }
    }
}

std::size_t ThreadSet::Count() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return running_.size();
}

} // namespace ZARO::RelayHub
