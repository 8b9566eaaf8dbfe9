/// A visitor of a simulated device, served by a service that the device itself plays.
#pragma once

#include <cstddef>
#include <cstdint>

#include <libssh/callbacks.h>
#include <libssh/libssh.h>

namespace ZARO::Fleet {

/// What a visitor may ask for, one character each.
constexpr char kSmallRequest = 's'; ///< answered with kSmallReply bytes
constexpr char kDownload = 'd';     ///< answered with data without end
constexpr std::size_t kSmallReply = 1024;

/// Lives on the loop of its session, and no longer than that.
class FleetVisitor {
public:
    /// `channel` is open; it goes with the session.
    explicit FleetVisitor(ssh_channel channel);
    FleetVisitor(const FleetVisitor&) = delete;
    FleetVisitor& operator=(const FleetVisitor&) = delete;

    /// Sends what the visitor waits for, as far as the window reaches and in small portions.
    void Serve();
    /// Whether it could send more right away.
    bool IsBusy() const;
    bool IsOver() const { return over_; }
    void Close();

private:
    static int OnData(ssh_session session, ssh_channel channel, void* data, std::uint32_t size,
                      int isError, void* self);
    static void OnEnd(ssh_session session, ssh_channel channel, void* self);

    const ssh_channel channel_;
    ssh_channel_callbacks_struct callbacks_{};
    std::size_t owed_ = 0; ///< bytes still to be sent
    bool endless_ = false;
    bool over_ = false;
};

} // namespace ZARO::Fleet
