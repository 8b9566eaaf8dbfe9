/// What the fuzz targets share. A target asserts what must hold for every input; an exception that
/// escapes is a finding too. libFuzzer's option -close_fd_mask=3 keeps the terminal quiet.
#pragma once

#include <syslog.h>
#include <unistd.h>

#include <cassert>
#include <sstream>

#include <zarorelayd/daemon.h>

#include "app/common/checks.h"
#include "app/daemon/exchange.h"
#include "app/daemon/server_reply.h"
#include "tests/support/temp_root.h"

using namespace ZARO;
using namespace ZARO::Relay;

/// The target, and the device that it runs on.
void Fuzz(const std::string& input);
inline const TempRoot gDevice;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    gDevice.Write("/usr/zaro/etc/services.d/web.conf", "title=\"Web\"\ntcp=80\n");
    gDevice.Write("/usr/zaro/etc/services.d/a.b-c_d.conf", "section=s\nkey=k\nudp=65535\n");
    gDevice.Write("/sys/class/net/eth0/address", "02:00:4c:00:00:01\n");
    Daemon::_logLevel = 7;
    return setlogmask(LOG_MASK(LOG_EMERG)) == 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    Fuzz(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
