#include "app/daemon/status_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "app/common/json_io.h"
#include "daemon/log.h"
#include "platform/new_file.h"
#include "platform/paths.h"

namespace ZARO::Relay::app {

namespace {

/// Replaces a file that everybody may read, in a folder that everybody may write to.
bool Replace(const std::string& path, const std::string& text) {
    const std::string temporary = NewFileOf(path);
    const int fd = OpenNewFile(path);
    if (fd < 0) {
        return false;
    }
    MoveFolderAway(path);
    const bool good = WriteAll(fd, text) && fchmod(fd, 0644) == 0;
    if (close(fd) == 0 && good && rename(temporary.c_str(), path.c_str()) == 0) {
        return true;
    }
    const int error = errno;
    unlink(temporary.c_str());
    errno = error;
    return false;
}

} // namespace

StatusFile::StatusFile() : path_(paths::StatusFile()), owner_(getpid()) {
}

StatusFile::~StatusFile() {
    if (getpid() == owner_) {
        (void)unlink(path_.c_str());
    }
}

void StatusFile::Write(const Json::Value& status) {
    const std::string text = StyledJson(status);
    if (text == written_) {
        return;
    }
    const bool good = Replace(path_, text);
    struct stat info = {};
    if (good && lstat(path_.c_str(), &info) == 0) {
        written_ = text;
        inode_ = info.st_ino;
    }
    if (good && failing_) {
        RELAY_LOG(4, "status file [%s] can be written again", path_.c_str());
    } else if (!good && !failing_) {
        RELAY_LOG(3, "status file [%s] can't be written, %s", path_.c_str(), strerror(errno));
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
        return; // what it tells is not the state any more: its age shows that
    }
    (void)utimensat(AT_FDCWD, path_.c_str(), nullptr, AT_SYMLINK_NOFOLLOW); // cleaners go by age
}

bool IsTrustedFile(const std::string& path) {
    struct stat file = {};
    struct stat folder = {};
    const std::string name = path.substr(0, path.rfind('/') + 1);
    return lstat(path.c_str(), &file) == 0 && S_ISREG(file.st_mode) &&
           (file.st_uid == 0 || file.st_uid == geteuid() ||
            (stat(name.c_str(), &folder) == 0 && folder.st_uid == file.st_uid));
}

void WriteDump(const Json::Value& dump) {
    const std::string path = paths::DebugFile(getpid());
    const int fd = open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        RELAY_LOG(7, "nobody waits for a dump in [%s]", path.c_str());
        return;
    }
    struct stat info;
    const bool askers = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_nlink <= 1 &&
                        (info.st_uid == 0 || info.st_uid == geteuid());
    if (!askers || ftruncate(fd, 0) != 0 || !WriteAll(fd, CompactJson(dump) + "\n")) {
        RELAY_LOG(4, "dump not written to [%s]", path.c_str());
    }
    close(fd);
}

} // namespace ZARO::Relay::app
