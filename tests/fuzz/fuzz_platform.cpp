/// The platform's files, one text for all of them; its first two lines are a key and a value to
/// set.
#include <zaro/platform.h>

#include "base/paths.h"
#include "platform/linux/lines.h"
#include "tests/fuzz/fuzz.h"

void Fuzz(const std::string& input) {
    const std::string file = paths::DeviceKeyFile();
    gDevice.Write("/usr/zaro/etc/device.key", input);
    for (const std::string& link : {paths::InfoFile(), paths::DdnsFile(), paths::ClusterFile(),
                                    paths::PortForwardFile(), paths::ServicesDir() + "/x.conf"}) {
        (void)!symlink(file.c_str(), link.c_str()); // fails after the first run
    }
    assert(AuthConf(true).token.size() % 32 == 0 && NetworkConf(true).IsValid());
    assert(ServiceConf("x").port <= 65535 && ServiceConf("x").port != 0);
    std::istringstream before(input);
    std::string key, value, was, is, read(input.size() + 1, '\0');
    std::getline(std::getline(before, key), value);
    const bool fit = ZARO::Platform::IsKey(key.c_str()) && ZARO::Platform::IsValue(value.c_str());
    assert((TLIBCINFOSetKeyValue(key.c_str(), value.c_str()) >= 0) == fit);
    TLIBCFileGetKeyValue(file.c_str(), key.c_str(), read.data(), static_cast<int>(read.size()), 0);
    assert(!fit || std::string(read.c_str()) == value.c_str());
    std::istringstream after(gDevice.Read("/usr/zaro/etc/device.key"));
    std::getline(std::getline(after, is), is);
    while (std::getline(before, was)) {
        const auto set = ZARO::Platform::ParseAssignment(was);
        assert(std::getline(after, is) && (is == was || (fit && set && set->key == key.c_str())));
    }
}
