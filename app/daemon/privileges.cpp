#include "app/daemon/privileges.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <zarorelayd/daemon.h>

#include "base/log.h"

namespace ZARO::Relay::app {

namespace {

constexpr std::uint64_t Bit(int capability) {
    return std::uint64_t{1} << capability;
}

/// Files of others: the settings keep their owner (CHOWN), the log may lie in a closed folder
/// (DAC_OVERRIDE), and what somebody planted in /tmp is removed (FOWNER). The notifier belongs to
/// the appliance and may well change its user; one that hangs is ended all the same (KILL).
constexpr std::uint64_t kKept = Bit(CAP_CHOWN) | Bit(CAP_DAC_OVERRIDE) | Bit(CAP_FOWNER) |
                                Bit(CAP_KILL) | Bit(CAP_SETGID) | Bit(CAP_SETUID);
constexpr int kMostCapabilities = 64;

bool Capabilities(long call, std::uint64_t& effective, std::uint64_t& permitted) {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct halves[2] = {};
    for (int i = 0; i < 2; ++i) {
        halves[i].effective = static_cast<std::uint32_t>(effective >> (32 * i));
        halves[i].permitted = static_cast<std::uint32_t>(permitted >> (32 * i));
    }
    if (syscall(call, &header, halves) != 0) {
        return false;
    }
    effective = halves[0].effective | std::uint64_t{halves[1].effective} << 32;
    permitted = halves[0].permitted | std::uint64_t{halves[1].permitted} << 32;
    return true;
}

} // namespace

void DropPrivileges() {
    (void)prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0); // before Linux 3.5 there is no such thing
    for (int capability = 0; capability < kMostCapabilities; ++capability) {
        if ((kKept & Bit(capability)) == 0) {
            // Fails without privilege and for those that the kernel does not know.
            (void)prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
        }
    }
    std::uint64_t effective = 0;
    std::uint64_t permitted = 0;
    bool good = Capabilities(SYS_capget, effective, permitted);
    effective &= kKept;
    permitted &= kKept;
    good = good && Capabilities(SYS_capset, effective, permitted);
    if (!good) {
        RELAY_LOG(log::Warning, "capabilities can't be given up, %s", strerror(errno));
    }
}

} // namespace ZARO::Relay::app
