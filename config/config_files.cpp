// RelaydConf's JSON files.
#define RELAY_LOG_UNIT "config.cpp"
#include <zarorelayd/config.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <new>

#include "config/json_file.h"
#include "daemon/log.h"
#include "platform/new_file.h"
#include "platform/unique_fd.h"

namespace ZARO::Relay {

namespace {

/// Makes the rename survive a power cut. Where the file system can't, the rename still holds.
void SyncFolderOf(const std::string& path) {
    const UniqueFd fd(open(FolderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.IsOpen()) {
        (void)fsync(fd.Get());
    }
}

/// Moves a broken file out of the way, so that it is not read again, unless another process has
/// replaced it since.
void MoveAside(const std::string& path, const json::FileText& broken) {
    struct stat now = {};
    if (lstat(path.c_str(), &now) != 0) {
        return; // another reader was quicker
    }
    if (!S_ISLNK(now.st_mode) && (now.st_ino != broken.inode || now.st_dev != broken.device)) {
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

bool ReadJsonFile(const std::string& path, Json::Value& out, bool& readable, json::Links links) {
    out = Json::Value();
    readable = true;
    if (path.empty()) {
        return true;
    }
    json::FileText file;
    try {
        const json::Reading reading = json::ReadText(path, file, links);
        readable = reading != json::Reading::Unreadable;
        if (reading == json::Reading::Done && !json::Parse(file.text, out)) {
            RELAY_LOG(3, "bad json format [%s]", path.c_str());
            MoveAside(path, file);
        }
    } catch (const std::bad_alloc&) { // it says nothing about the file
        out = Json::Value();          // which may be half read
        readable = false;
        errno = ENOMEM;
    }
    if (!readable) {
        RELAY_LOG(3, "can not read [%s], %m", path.c_str());
    }
    return true; // also for a missing or broken file: callers look at what `out` is
}

bool RelaydConf::ReadJsonFile(const std::string& path, Json::Value& out) {
    bool readable = false;
    return Relay::ReadJsonFile(path, out, readable);
}

bool RelaydConf::WriteJsonFile(const std::string& path, const Json::Value& value) {
    const std::string text = json::Styled(value);
    if (path == "-") {
        std::cout << text << std::flush;
        return true;
    }
    const std::string temporary = NewFileOf(path);
    UniqueFd fd(path.empty() ? -1 : OpenNewFile(path));
    if (!fd.IsOpen()) {
        RELAY_LOG(3, "open failed [%s]", temporary.c_str());
        return false;
    }
    (void)fchmod(fd.Get(), 0644); // some file systems have no modes
    if (!WriteAll(fd.Get(), text) || !Sync(fd.Get()) || !fd.Close()) {
        RELAY_LOG(3, "write failed [%s], %m", temporary.c_str());
        unlink(temporary.c_str());
        return false;
    }
    if (rename(temporary.c_str(), path.c_str()) != 0) {
        RELAY_LOG(3, "rename to %s failed %m", path.c_str());
        unlink(temporary.c_str());
        return true; // the text was written; only the rename failed
    }
    SyncFolderOf(path);
    return true;
}

} // namespace ZARO::Relay
