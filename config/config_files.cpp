// RelaydConf's JSON files.
#include <zarorelayd/config.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>

#include "config/json_text.h"
#include "daemon/log.h"

namespace ZARO::Relay {

namespace {

bool WriteText(int fd, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = write(fd, text.data() + written, text.size() - written);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        written += static_cast<std::size_t>(count);
    }
    return true;
}

/// Makes the rename survive a power cut. Where the file system can't, the rename still holds.
void SyncFolderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        (void)fsync(fd);
        close(fd);
    }
}

/// Puts a broken file out of the way, so that it is never read twice; unless another process has
/// replaced it since by one that was not looked at.
void MoveAside(const std::string& path, const json::FileText& broken) {
    struct stat now = {};
    if (lstat(path.c_str(), &now) == 0 && !S_ISLNK(now.st_mode) &&
        (now.st_ino != broken.inode || now.st_dev != broken.device)) {
        return;
    }
    const std::string aside = path + ".bad";
    if (rename(path.c_str(), aside.c_str()) != 0) {
        RELAY_LOG(3, "rename %s to .bad failed. %m", path.c_str());
        unlink(path.c_str());
    }
}

/// Whether what was written is on the disk, as far as the file system can tell.
bool Sync(int fd) {
    return fsync(fd) == 0 || (errno != EIO && errno != ENOSPC && errno != EDQUOT);
}

} // namespace

bool RelaydConf::ReadJsonFile(const std::string& path, Json::Value& out) {
    out = Json::Value();
    if (path.empty()) {
        return true;
    }
    json::FileText file;
    const json::Reading reading = json::ReadText(path, file);
    if (reading == json::Reading::Unreadable) {
        RELAY_LOG(3, "can not read [%s], %m", path.c_str());
    }
    if (reading == json::Reading::Done && !json::Parse(file.text, out)) {
        RELAY_LOG(3, "bad json format [%s]", path.c_str());
        MoveAside(path, file);
    }
    return true; // also for a missing or broken file: callers look at what `out` is
}

bool RelaydConf::WriteJsonFile(const std::string& path, const Json::Value& value) {
    const std::string text = json::Styled(value);
    if (path == "-") {
        std::cout << text << std::flush;
        return true;
    }
    const std::string temporary = path + ".tmp." + std::to_string(getpid());
    int fd = -1;
    if (!path.empty()) {
        // A leftover of an earlier process with our id, or a link planted in a folder that anybody
        // may write to, is replaced, never written through.
        (void)unlink(temporary.c_str());
        fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    }
    if (fd < 0) {
        RELAY_LOG(3, "open failed [%s]", temporary.c_str());
        return false;
    }
    (void)fchmod(fd, 0644); // some file systems have no modes
    const bool good = WriteText(fd, text) && Sync(fd);
    const int error = errno;
    if (close(fd) != 0 || !good) {
        errno = error;
        RELAY_LOG(3, "write failed [%s], %m", temporary.c_str());
        unlink(temporary.c_str());
        return false;
    }
    if (rename(temporary.c_str(), path.c_str()) != 0) {
        RELAY_LOG(3, "rename to %s failed %m", path.c_str());
        unlink(temporary.c_str());
        return true; // the content was produced; only its placing failed
    }
    SyncFolderOf(path);
    return true;
}

} // namespace ZARO::Relay
