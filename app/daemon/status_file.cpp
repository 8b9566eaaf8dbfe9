#include "app/daemon/status_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <zarorelayd/daemon.h>

#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/replace_file.h"
#include "base/unique_fd.h"

namespace ZARO::Relay::app {

StatusFile::StatusFile() : path_(paths::StatusFile()), owner_(getpid()) {
}

StatusFile::~StatusFile() {
    if (getpid() == owner_) {
        (void)unlink(path_.c_str());
    }
}

void StatusFile::Write(const Json::Value& status) {
    const std::string text = json::Pretty(status);
    if (text == written_) {
        return;
    }
    NewFile file;
    file.mode = 0644;   // everybody may read it
    file.lasts = false; // it describes this run only, and is written often
    const bool good = ReplaceFile(path_, text, file) == Replaced::Done;
    struct stat info = {};
    if (good && lstat(path_.c_str(), &info) == 0) {
        written_ = text;
        inode_ = info.st_ino;
    }
    if (good && failing_) {
        RELAY_LOG(log::Warning, "status file [%s] can be written again", path_.c_str());
    } else if (!good && !failing_) {
        RELAY_LOG(log::Error, "status file [%s] can't be written, %s", path_.c_str(),
                  strerror(errno));
    }
    failing_ = !good;
}

void StatusFile::Refresh() {
    struct stat info = {};
    if (lstat(path_.c_str(), &info) != 0 || info.st_ino != inode_) {
        written_.clear();
        return;
    }
    if (failing_) {
        return; // it is out of date, which its age shows
    }
    (void)utimensat(AT_FDCWD, path_.c_str(), nullptr, AT_SYMLINK_NOFOLLOW); // cleaners go by age
}

void WriteDump(const Json::Value& dump) {
    const std::string path = paths::DebugFile(getpid());
    const UniqueFd fd(open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd.IsOpen()) {
        RELAY_LOG(log::Debug, "nobody waits for a dump in [%s]", path.c_str());
        return;
    }
    struct stat info;
    const bool askers = fstat(fd.Get(), &info) == 0 && S_ISREG(info.st_mode) &&
                        info.st_nlink <= 1 && (info.st_uid == 0 || info.st_uid == geteuid());
    if (!askers || ftruncate(fd.Get(), 0) != 0 || !WriteAll(fd.Get(), json::OneLine(dump))) {
        RELAY_LOG(log::Warning, "dump not written to [%s]", path.c_str());
    }
}

} // namespace ZARO::Relay::app
