#include "hub/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace ZARO::RelayHub {

namespace {

constexpr std::size_t kSmallFile = 64 << 10;

bool Fail(const std::string& doing, std::string& error) {
    error = doing + ": " + strerror(errno);
    return false;
}

bool WriteAll(int fd, const std::string& content) {
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t written = write(fd, content.data() + done, content.size() - done);
        if (written < 0 && errno != EINTR) {
            return false;
        }
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
    return true;
}

bool IsKnown(const std::string& name) {
    for (const char* known :
         {".", "..", "lock", "hub.db", "hub.db-wal", "hub.db-shm", "hub.db-journal", "https.pem",
          "https.pem.new", "relay.key", "relay.key.new"}) {
        if (name == known) {
            return true;
        }
    }
    return false;
}

/// Whether the folder is empty, or a hub of ours has been at work there and nobody else.
bool IsOurs(int folder) {
    struct stat lock {};
    const bool hasLock = fstatat(folder, "lock", &lock, AT_SYMLINK_NOFOLLOW) == 0;
    if (hasLock && (!S_ISREG(lock.st_mode) || lock.st_uid != geteuid())) {
        return false;
    }
    Fd copy(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR*)> list(fdopendir(copy.Get()), closedir);
    if (list == nullptr) {
        return false;
    }
    (void)copy.Release(); // closed with the list
    std::size_t entries = 0;
    while (const dirent* entry = readdir(list.get())) {
        ++entries;
        if (!IsKnown(entry->d_name)) {
            return false;
        }
    }
    return hasLock || entries <= 2;
}

/// Makes the folder its owner's alone. One that is somebody else's is left as it is.
bool MakePrivate(int folder, const std::string& name, std::string& error) {
    struct stat status {};
    if (fstat(folder, &status) != 0) {
        return Fail("can't use " + name, error);
    }
    if (status.st_uid != geteuid()) {
        error = "can't use " + name + ": it belongs to another user";
        return false;
    }
    if ((status.st_mode & 077) == 0) {
        return true;
    }
    // Where all may write, what looks like a hub's may have been planted.
    if ((status.st_mode & (S_ISVTX | S_IWOTH)) != 0 || !IsOurs(folder)) {
        error = "can't use " + name + ": others may enter it and it is no hub's alone";
        return false;
    }
    return fchmod(folder, 0700) == 0 || Fail("can't use " + name, error);
}

/// A file that was renamed in the folder of `file` keeps its new name through a loss of power.
bool SyncFolderOf(const std::string& file) {
    const std::size_t slash = file.rfind('/');
    const std::string name = slash == std::string::npos ? "." : file.substr(0, slash + 1);
    const Fd folder(open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder && fsync(folder.Get()) == 0;
}

} // namespace

bool OpenDataFolder(const std::string& folder, Fd& lock, std::string& error) {
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        return Fail("can't make " + folder, error);
    }
    const Fd opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened) {
        return Fail("can't use " + folder, error);
    }
    if (!MakePrivate(opened.Get(), folder, error)) {
        return false;
    }
    Fd locked(openat(opened.Get(), "lock", O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!locked) {
        return Fail("can't write to " + folder, error);
    }
    if (flock(locked.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            return Fail("can't lock " + folder, error);
        }
        error = "another hub uses " + folder;
        return false;
    }
    lock = std::move(locked);
    return true;
}

bool WritePrivateFile(const std::string& file, const std::string& content, std::string& error) {
    const std::string temporary = file + ".new";
    (void)unlink(temporary.c_str()); // left by a hub that was killed, under the folder's lock
    const Fd fd(
        open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd || !WriteAll(fd.Get(), content) || fsync(fd.Get()) != 0 ||
        rename(temporary.c_str(), file.c_str()) != 0 || !SyncFolderOf(file)) {
        const bool failed = Fail("can't write " + file, error);
        (void)unlink(temporary.c_str());
        return failed;
    }
    return true;
}

bool ReadSmallFile(const std::string& file, std::string* content, std::string& error,
                   bool* isThere) {
    content->clear();
    const Fd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (isThere != nullptr) {
        *isThere = fd || errno != ENOENT;
    }
    if (!fd) {
        return errno == ENOENT || Fail("can't read " + file, error);
    }
    char buffer[4096];
    for (;;) {
        const ssize_t got = read(fd.Get(), buffer, sizeof buffer);
        if (got == 0) {
            return true;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return Fail("can't read " + file, error);
        }
        content->append(buffer, static_cast<std::size_t>(got));
        if (content->size() > kSmallFile) {
            error = file + " is too large";
            return false;
        }
    }
}

} // namespace ZARO::RelayHub
