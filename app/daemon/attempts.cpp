#include "app/daemon/attempts.h"

#include <zarorelayd/daemon.h>

#include "base/log.h"

namespace ZARO::Relay::app {

bool Attempts::Send(const boost::shared_ptr<Request>& request, Time now) {
    if (!request->IsValid() || !queue_.Add(request, done_, 0)) {
        return false;
    }
    sentAt_ = now;
    ++count_;
    return true;
}

void Attempts::Drop() {
    queue_.Remove(done_);
    Finish();
}

void Attempts::Reset() {
    Drop();
    StartOver(Time());
    error_ = RELAYD_RET_SUCCESS;
}

void Attempts::StartOver(Time now) {
    backoff_.Reset();
    next_ = now;
}

void Attempts::Succeeded(Time now) {
    if (error_ != RELAYD_RET_SUCCESS) {
        RELAY_LOG(log::Warning, "%s works again", kind_);
    }
    error_ = RELAYD_RET_SUCCESS;
    backoff_.Succeeded(now);
    next_ = now;
}

void Attempts::Failed(RELAYD_RET result) {
    if (error_ != result) {
        RELAY_LOG(log::Warning, "%s failed: %s, trying on", kind_, GetErrorStr(result).c_str());
    }
    error_ = result;
}

void Attempts::Delay(bool refused, Time now, milliseconds spread) {
    next_ = now + (refused ? backoff_.Refused() : backoff_.Failed(now, spread));
}

void Attempts::DelayAsAsked(seconds wait, Time now) {
    next_ = now + Backoff::Random(wait, milliseconds(wait) * 11 / 10);
}

} // namespace ZARO::Relay::app
