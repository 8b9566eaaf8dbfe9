#include "common.h"

#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <memory>

#include "lines.h"
#include "platform/new_file.h"

namespace ZARO::Platform {
namespace {

// Whoever holds the lock is replacing one small file; a disk that wakes up takes seconds.
constexpr int kLockWaitMs = 10000;
constexpr int kLockStepMs = 5;

/// Follows the symbolic links of `path` to the file. A missing file stands for itself, but a link
/// that leads nowhere is an error: replacing it would separate it from its target.
int ResolveTarget(const std::string& path, std::string& target) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) {
        target = path;
        return errno == ENOENT ? 0 : errno;
    }
    const std::unique_ptr<char, decltype(&free)> real(realpath(path.c_str(), nullptr), free);
    if (!real) {
        return errno;
    }
    target = real.get();
    return 0;
}

/// The hidden companion of a file, in the same folder.
std::string Companion(const std::string& file, const char* suffix) {
    const size_t name = file.rfind('/') + 1;
    return file.substr(0, name) + "." + file.substr(name) + suffix;
}

/// Takes the lock that the writers of a file share; closing releases it. Nobody else can open the
/// lock file, so nobody else can hold it. It is never removed: two writers could then lock two
/// files of one name.
int Lock(const std::string& path, UniqueFd& lock) {
    lock = UniqueFd(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                         S_IRUSR | S_IWUSR));
    struct stat info {};
    if (!lock.IsOpen() || fstat(lock.Get(), &info) != 0) {
        return errno;
    }
    if (!S_ISREG(info.st_mode) || fchmod(lock.Get(), S_IRUSR | S_IWUSR) != 0) {
        return EPERM;
    }
    for (int waited = 0; waited < kLockWaitMs; waited += kLockStepMs) {
        if (flock(lock.Get(), LOCK_EX | LOCK_NB) == 0) {
            return 0;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return errno;
        }
        poll(nullptr, 0, kLockStepMs);
    }
    return EBUSY;
}

/// Writes a new file completely, with the owner and mode that `like` tells.
int WriteNew(const std::string& path, const std::string& text, const struct stat& like) {
    const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                           S_IRUSR | S_IWUSR));
    if (!fd.IsOpen()) {
        return errno;
    }
    if (const int error = WriteAll(fd.Get(), text)) {
        return error;
    }
    if (fchown(fd.Get(), like.st_uid, like.st_gid) != 0) {
        // Only root may give a file away: whoever else may write here keeps it.
    }
    if (fchmod(fd.Get(), like.st_mode & 07777) != 0 || fsync(fd.Get()) != 0) {
        return errno;
    }
    return 0;
}

/// Replaces a file by rename, so that it is whole at every instant. The caller holds its lock, so
/// the new file can have a fixed name. What a killed writer left is removed here.
int Replace(const std::string& file, const std::string& text, const struct stat& like) {
    const std::string fresh = Companion(file, ".new");
    if (unlink(fresh.c_str()) != 0 && errno != ENOENT) {
        return errno;
    }
    int error = WriteNew(fresh, text, like);
    if (error == 0 && rename(fresh.c_str(), file.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        (void)unlink(fresh.c_str()); // the next writer removes it, if this one can't
        return error;
    }
    SyncFolder(ZARO::Relay::FolderOf(file));
    return 0;
}

/// `text` with `key` set to `value` in every line that has it, so that programs that take the first
/// such line see the same. Without such a line one is added at the end.
std::string WithValue(std::string_view text, std::string_view key, std::string_view value) {
    const std::string written = "\"" + std::string(value) + "\"";
    std::string result;
    bool found = false;
    for (std::string_view line; TakeLine(text, line);) {
        const auto assignment = ParseAssignment(line);
        if (assignment && assignment->key == key) {
            const size_t begin = static_cast<size_t>(assignment->written.data() - line.data());
            result.append(line, 0, begin).append(written);
            result.append(line, begin + assignment->written.size());
            found = true;
        } else {
            result.append(line);
        }
        result += '\n';
    }
    if (!found) {
        result.append(key).append("=").append(written).append("\n");
    }
    return result;
}

int SetValue(const std::string& path, std::string_view key, std::string_view value) {
    std::string file;
    UniqueFd lock;
    int error = ResolveTarget(path, file);
    if (error == 0) {
        error = Lock(Companion(file, ".lock"), lock);
    }
    if (error != 0) {
        return error;
    }
    struct stat like {};
    std::string before;
    if (stat(file.c_str(), &like) == 0) {
        error = ReadFile(file, before);
    } else {
        error = errno == ENOENT ? 0 : errno;
        like.st_uid = geteuid();
        like.st_gid = getegid();
        like.st_mode = 0644;
    }
    if (error != 0) {
        return error;
    }
    const std::string after = WithValue(before, key, value);
    if (after.size() > kMaxFileSize) {
        return EFBIG;
    }
    return after == before ? 0 : Replace(file, after, like);
}

} // namespace
} // namespace ZARO::Platform

using namespace ZARO::Platform;

int TLIBCFileGetKeyValue(const char* file, const char* key, char* buf, int size, int) {
    return Guard([&] {
        if (file == nullptr || key == nullptr || buf == nullptr || size <= 0) {
            return Fail(EINVAL);
        }
        std::string text;
        if (const int error = ReadFile(file, text)) {
            return Fail(error);
        }
        return CopyCut(FindValue(text, key).value_or(""), buf, size);
    });
}

int TLIBCINFOSetKeyValue(const char* key, const char* value) {
    return Guard([&] {
        if (key == nullptr || value == nullptr || !IsKey(key) || !IsValue(value)) {
            return Fail(EINVAL);
        }
        const int error = SetValue(paths::InfoFile(), key, value);
        return error == 0 ? 0 : Fail(error);
    });
}

int TLIBCSupportGet(const char* capability) {
    return Guard([&] {
        return capability != nullptr && IsYes(ReadValue(paths::InfoFile(), capability)) ? 1 : 0;
    });
}
