/// Tells on an event loop when a descriptor is ready.
#pragma once

#include <array>
#include <utility>

#include <boost/asio/posix/basic_stream_descriptor.hpp>

#include "hub/loops.h"

namespace ZARO::RelayHub {

/// Watches a descriptor that somebody else owns. For the thread of its loop. The descriptor must
/// stay open until Stop() or until this object goes.
class Watch {
public:
    enum class Kind { Readable, Writable, HungUp };

    explicit Watch(Loop& loop) : descriptor_(loop.get_executor()) {}
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch() { Stop(); }

    /// False, with errno set, when the system can't watch another one.
    bool Start(int fd) {
        boost::system::error_code failed;
        descriptor_.assign(fd, failed);
        errno = failed ? failed.value() : errno;
        return !failed;
    }
    /// Forgets the descriptor. Nothing that was awaited is called from then on.
    void Stop() {
        if (descriptor_.is_open()) {
            (void)descriptor_.release();
        }
    }
    bool IsStarted() const { return descriptor_.is_open(); }

    /// Calls `ready` once, when it is; while an earlier call waits for the same, it does nothing.
    /// `ready` has to keep the owner of this object alive.
    template <typename Ready> void Await(Kind kind, Ready&& ready) {
        if (awaited_[Index(kind)] || !IsStarted()) {
            return;
        }
        awaited_[Index(kind)] = true;
        descriptor_.async_wait(Type(kind), [this, kind, body = std::forward<Ready>(ready)](
                                               const boost::system::error_code& failed) mutable {
            awaited_[Index(kind)] = false;
            if (!failed && IsStarted()) {
                body();
            }
        });
    }

private:
    using Descriptor = asio::posix::basic_stream_descriptor<Loop::executor_type>;

    static std::size_t Index(Kind kind) { return static_cast<std::size_t>(kind); }
    static Descriptor::wait_type Type(Kind kind) {
        constexpr Descriptor::wait_type kTypes[] = {Descriptor::wait_read, Descriptor::wait_write,
                                                    Descriptor::wait_error};
        return kTypes[Index(kind)];
    }

    Descriptor descriptor_;
    std::array<bool, 3> awaited_{}; ///< by kind
};

} // namespace ZARO::RelayHub
