#include "app/ctl/config_change.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <zarorelayd/config.h>

#include "app/common/clock.h"
#include "app/ctl/report.h"
#include "base/paths.h"
#include "base/replace_file.h"

namespace ZARO::Relay::ctl {

namespace {

constexpr app::seconds kLockPatience{5};

int TellBroken(const std::string& fault) {
    return Fail(kUnusable, fault, "correct the file");
}

} // namespace

int ReadConfig(Json::Value& document) {
    std::string fault;
    return app::ReadConfigFile(paths::ConfigFile(), true, document, fault) ? kSuccess
                                                                           : TellBroken(fault);
}

ConfigChange::ConfigChange() : path_(paths::ConfigFile()) {
    if (faccessat(AT_FDCWD, FolderOf(path_).c_str(), W_OK, AT_EACCESS) != 0) {
        folderError_ = errno;
    } else {
        locked_ = lock_.Take(kLockPatience);
    }
    found_ = app::CheckConfigFile(path_, true);
}

int ConfigChange::CheckReadable() const {
    return found_.IsReadable() ? kSuccess : TellBroken(found_.faults.front());
}

int ConfigChange::CheckChangeable() const {
    if (folderError_ != 0) {
        return Fail(kNoAnswer, FolderOf(path_) + " can't be written to: " + strerror(folderError_),
                    RootOr("see whether it is there and can be written"));
    }
    if (!locked_) {
        return Fail(kLocked, app::ConfigLock::Path() + " is held by another program",
                    "try again when that has ended");
    }
    return found_.unusable ? Fail(kUnusable, found_.faults.front(), "correct the file first")
                           : kSuccess;
}

int ConfigChange::Write(const Json::Value& config) const {
    // Reads back, since the library reports success even when the final rename failed.
    return RelaydConf::WriteJsonFile(path_, config) && ReadBack() == config ? kSuccess
                                                                            : TellNotWritten();
}

Json::Value ConfigChange::ReadBack() const {
    Json::Value config;
    (void)RelaydConf::ReadJsonFile(path_, config); // true in every case
    return config.isObject() ? config : Json::Value(Json::objectValue);
}

int TellNotWritten() {
    return Fail(kNoAnswer, paths::ConfigFile() + " can't be written",
                RootOr("see whether the disk is full or read-only"));
}

} // namespace ZARO::Relay::ctl
