#include "app/ctl/config_change.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include <zarorelayd/config.h>

#include "app/common/clock.h"
#include "app/common/config_check.h"
#include "app/ctl/report.h"
#include "base/replace_file.h"
#include "base/paths.h"

namespace ZARO::Relay::ctl {

namespace {

constexpr app::seconds kLockPatience{5};

} // namespace

bool LookAtConfig(Json::Value& config, std::string& fault) {
    return app::ReadConfigFile(paths::ConfigFile(), true, config, fault);
}

ConfigChange::ConfigChange() : path_(paths::ConfigFile()) {
}

int ConfigChange::Begin() {
    const std::string folder = FolderOf(path_);
    if (faccessat(AT_FDCWD, folder.c_str(), W_OK, AT_EACCESS) != 0) {
        return Fail(kNoAnswer, folder + " can't be written to: " + strerror(errno),
                    RootOr("see whether it is there and can be written"));
    }
    if (!lock_.Take(kLockPatience)) {
        return Fail(kLocked, app::ConfigLock::Path() + " is held by another program",
                    "try again when that has ended");
    }
    bool unusable = false;
    const std::vector<std::string> faults = app::CheckConfigFile(path_, true, unusable);
    if (unusable) {
        return Fail(kUnusable, faults.front(), "correct the file first");
    }
    return kSuccess;
}

Json::Value ConfigChange::Read() const {
    Json::Value config;
    (void)RelaydConf::ReadJsonFile(path_, config); // true in every case
    return config.isObject() ? config : Json::Value(Json::objectValue);
}

int ConfigChange::Write(const Json::Value& config) const {
    // The library also calls it a success when only the rename failed.
    return RelaydConf::WriteJsonFile(path_, config) && Read() == config ? kSuccess
                                                                        : TellNotWritten();
}

int TellNotWritten() {
    return Fail(kNoAnswer, paths::ConfigFile() + " can't be written",
                RootOr("see whether the disk is full or read-only"));
}

} // namespace ZARO::Relay::ctl
