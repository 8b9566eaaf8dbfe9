#include "common.h"

#include <ctype.h>

#include "base/paths.h"
#include "lines.h"
#include "mac.h"

using namespace ZARO::Platform;

int ZAROHAIsRunning(void) {
    return Guard([] { return IsYes(ReadValue(paths::ClusterFile(), "running")) ? 1 : 0; }) == 1;
}

int ZAROHAGetMacDL(int index, char* mac, int cbMac) {
    return Guard([&] {
        if (index != 0 || mac == nullptr) {
            return Fail(EINVAL);
        }
        std::string text = ReadValue(paths::ClusterFile(), "mac");
        if (!ParseMac(text)) {
            return Fail(EBADMSG);
        }
        for (char& c : text) {
            c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
        }
        const int error = CopyWhole(text, mac, cbMac);
        return error == 0 ? 0 : Fail(error);
    });
}
