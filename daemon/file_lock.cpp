#include <zarorelayd/file_lock.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace {

bool IsStillThere(int fd, const std::string& path) {
    struct stat locked = {};
    struct stat named = {};
    return fstat(fd, &locked) == 0 && stat(path.c_str(), &named) == 0 &&
           locked.st_ino == named.st_ino && locked.st_dev == named.st_dev;
}

} // namespace

FileLock::FileLock(const char* path) {
    AddFile(path);
}

FileLock::~FileLock() {
    Unlock();
}

bool FileLock::AddFile(const char* path) {
    if (path == nullptr) {
        return false;
    }
    files.emplace_back(path);
    fds.push_back(-1);
    return true;
}

bool FileLock::RemoveFile(const char*) {
    return false; // the set only grows
}

bool FileLock::Lock(int operation) {
    if (files.size() != fds.size()) {
        return false;
    }
    auto fd = fds.begin();
    for (auto file = files.begin(); file != files.end(); ++file, ++fd) {
        if (*fd >= 0) {
            continue;
        }
        // Anybody may plant a link where these files are, so links are not followed.
        ZARO::UniqueFd opened(
            open(file->c_str(), O_RDWR | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, 0644));
        // If its former owner has removed the file meanwhile, others will lock a new one.
        if (!opened.IsOpen() || flock(opened.Get(), operation | LOCK_NB) != 0 ||
            !IsStillThere(opened.Get(), *file)) {
            Unlock();
            return false;
        }
        *fd = opened.Release();
    }
    return true;
}

bool FileLock::Unlock() {
    if (files.size() != fds.size()) {
        return false;
    }
    for (int& fd : fds) {
        // For a file that is not locked both calls fail and do no harm.
        (void)flock(fd, LOCK_UN);
        (void)close(fd);
        fd = -1;
    }
    return true;
}
