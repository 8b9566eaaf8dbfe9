#include "bench/fleet_visitor.h"

#include <algorithm>

namespace ZARO::Fleet {

namespace {

constexpr std::size_t kPortion = 65536;

const char* Zeros() {
    static const char zeros[kPortion] = {};
    return zeros;
}

} // namespace

FleetVisitor::FleetVisitor(ssh_channel channel) : channel_(channel) {
    callbacks_.userdata = this;
    callbacks_.channel_data_function = OnData;
    callbacks_.channel_eof_function = OnEnd;
    callbacks_.channel_close_function = OnEnd;
    ssh_callbacks_init(&callbacks_);
    over_ = ssh_set_channel_callbacks(channel_, &callbacks_) != SSH_OK;
}

int FleetVisitor::OnData(ssh_session /*session*/, ssh_channel /*channel*/, void* data,
                         std::uint32_t size, int /*isError*/, void* self) {
    auto& visitor = *static_cast<FleetVisitor*>(self);
    const char* text = static_cast<const char*>(data);
    const auto count = [&](char what) {
        return static_cast<std::size_t>(std::count(text, text + size, what));
    };
    visitor.endless_ = visitor.endless_ || count(kDownload) > 0;
    visitor.owed_ += kSmallReply * count(kSmallRequest);
    return static_cast<int>(size);
}

void FleetVisitor::OnEnd(ssh_session /*session*/, ssh_channel /*channel*/, void* self) {
    static_cast<FleetVisitor*>(self)->over_ = true;
}

void FleetVisitor::Serve() {
    if (!IsBusy()) {
        return;
    }
    const std::size_t window = ssh_channel_window_size(channel_);
    const std::size_t size = std::min({endless_ ? kPortion : owed_, kPortion, window});
    const int sent = ssh_channel_write(channel_, Zeros(), static_cast<std::uint32_t>(size));
    over_ = over_ || sent < 0;
    owed_ -= std::min(owed_, static_cast<std::size_t>(std::max(sent, 0)));
}

bool FleetVisitor::IsBusy() const {
    return !over_ && (endless_ || owed_ > 0) && ssh_channel_window_size(channel_) > 0;
}

void FleetVisitor::Close() {
    (void)ssh_remove_channel_callbacks(channel_, &callbacks_);
    (void)ssh_channel_close(channel_); // a session that has ended has closed it anyway
    ssh_channel_free(channel_);
}

} // namespace ZARO::Fleet
