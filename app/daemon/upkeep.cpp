#include "app/daemon/upkeep.h"

#include <zarorelayd/daemon.h>

#include "base/log.h"

namespace ZARO::Relay::app {

namespace {

constexpr seconds kBetweenLosses{60};

} // namespace

void Upkeep::LoggedIn(Time now) {
    pace.LoggedIn(now);
    ++starts_;
}

bool Upkeep::Ended(const std::string& id, Time now) {
    ChangeStatus();
    stands_ = false;
    if (!pace.Lost(now)) {
        Trouble(id, "does not stand");
        return false;
    }
    // A connection that breaks again and again gets one warning per minute.
    const bool told = lossToldAt_ != Time() && now - lossToldAt_ < kBetweenLosses;
    lossToldAt_ = told ? lossToldAt_ : now;
    RELAY_LOG(told ? log::Info : log::Warning, "tunnel of %s is down, rebuilding it", id.c_str());
    return true;
}

bool Upkeep::BeginsToStand(const std::string& id, Time now) {
    if (now < StandsFrom()) {
        return false;
    }
    stands_ = true;
    pace.Stood();
    if (troubled_) {
        troubled_ = false;
        RELAY_LOG(log::Warning, "tunnel of %s works again", id.c_str());
    }
    return true;
}

void Upkeep::Trouble(const std::string& id, const char* how) {
    RELAY_LOG(troubled_ ? log::Info : log::Warning, "tunnel of %s %s, trying on", id.c_str(), how);
    troubled_ = true;
}

} // namespace ZARO::Relay::app
