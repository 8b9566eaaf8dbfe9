#include "base/replace_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <set>

#include "base/folder.h"
#include "base/unique_fd.h"

namespace ZARO {

namespace {

/// No writer takes that long.
constexpr std::time_t kAbandonedAfter = 3600; // seconds

/// What comes between a file's name and the writer's process id.
constexpr const char* kMark = ".tmp.";

/// The process id in a temporary name that begins with `prefix`; 0 when the name is no such name.
pid_t WriterOf(const std::string& name, const std::string& prefix) {
    const pid_t writer = name.rfind(prefix, 0) == 0 ? atoi(name.c_str() + prefix.size()) : 0;
    return name == prefix + std::to_string(writer) ? writer : 0;
}

/// Whether nobody will go on with this file. A writer in another container is at work although its
/// process is not seen from here, so the file must be old as well. Only our own plain files count.
bool IsAbandoned(const std::string& path, pid_t writer) {
    struct stat info = {};
    return kill(writer, 0) != 0 && errno == ESRCH && lstat(path.c_str(), &info) == 0 &&
           S_ISREG(info.st_mode) && info.st_uid == geteuid() &&
           time(nullptr) - info.st_mtime > kAbandonedAfter;
}

/// Whether this is the first call for a temporary name: after a fork the child has another one.
bool IsFirstCallFor(const std::string& name) {
    static std::mutex mutex; // a program may have threads
    static std::set<std::string> names;
    const std::lock_guard<std::mutex> lock(mutex);
    return names.insert(name).second;
}

/// Opens the temporary file. Whatever has its name is never written through: it may be a leftover
/// of an earlier process with our id, or a link that somebody planted.
UniqueFd OpenNewFile(const std::string& name) {
    FreeName(name);
    return UniqueFd(open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
}

/// Whether what was written is on the disk, as far as the file system can tell.
bool Sync(int fd) {
    return fsync(fd) == 0 || (errno != EIO && errno != ENOSPC && errno != EDQUOT);
}

/// Gives a file that is whole its owner and its mode. Only root can give a file away.
bool SetOwnerAndMode(int fd, const NewFile& file) {
    if (file.like == nullptr) {
        return fchmod(fd, file.mode) == 0 || !file.needsMode;
    }
    (void)!fchown(fd, file.like->st_uid, file.like->st_gid);
    return fchmod(fd, file.like->st_mode & 07777) == 0 || !file.needsMode;
}

bool Write(UniqueFd& fd, std::string_view text, const NewFile& file) {
    return WriteAll(fd.Get(), text) && SetOwnerAndMode(fd.Get(), file) &&
           (!file.lasts || Sync(fd.Get())) && fd.Close();
}

bool Place(const std::string& name, const std::string& path, const NewFile& file) {
    if (file.onlyIfMissing) {
        const bool placed = link(name.c_str(), path.c_str()) == 0 || errno == EEXIST;
        (void)unlink(name.c_str()); // what stays only its owner can read; it is removed later
        return placed;
    }
    if (rename(name.c_str(), path.c_str()) == 0) {
        return true;
    }
    if (errno != EISDIR) {
        return false;
    }
    MoveFolderAway(path);
    return rename(name.c_str(), path.c_str()) == 0;
}

Replaced RemoveNewFile(const std::string& name, Replaced outcome) {
    const int error = errno;
    (void)unlink(name.c_str());
    errno = error;
    return outcome;
}

} // namespace

bool WriteAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count > 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            errno = count == 0 ? EIO : errno;
            return false;
        }
    }
    return true;
}

std::string FolderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

std::string NewFileOf(const std::string& path) {
    return path + kMark + std::to_string(getpid());
}

bool IsNewFileOf(const std::string& name, const std::string& file) {
    return WriterOf(name, file + kMark) > 0;
}

Replaced ReplaceFile(const std::string& path, std::string_view text, const NewFile& file) {
    RemoveLeftNewFiles(path);
    const std::string name = NewFileOf(path); // here: if memory runs out later, a file would stay
    UniqueFd fd = OpenNewFile(name);
    if (!fd.IsOpen()) {
        return Replaced::NotOpened;
    }
    if (!Write(fd, text, file)) {
        return RemoveNewFile(name, Replaced::NotWritten);
    }
    if (!Place(name, path, file)) {
        return RemoveNewFile(name, Replaced::NotPlaced);
    }
    if (file.lasts) {
        SyncFolder(FolderOf(path));
    }
    return Replaced::Done;
}

void RemoveLeftNewFiles(const std::string& path) {
    if (!IsFirstCallFor(NewFileOf(path))) {
        return;
    }
    const std::string prefix = path.substr(path.rfind('/') + 1) + kMark;
    (void)ForEachEntry(FolderOf(path), [&](const std::filesystem::path& file) {
        const pid_t writer = WriterOf(file.filename(), prefix);
        if (writer > 0 && IsAbandoned(file, writer)) {
            (void)unlink(file.c_str());
        }
    });
}

void SyncFolder(const std::string& folder) {
    const UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.IsOpen()) {
        (void)fsync(fd.Get());
    }
}

void FreeName(const std::string& path) {
    if (unlink(path.c_str()) != 0 && errno == EISDIR) {
        MoveFolderAway(path);
    }
}

void MoveFolderAway(const std::string& path) {
    struct stat around = {};
    if (stat(FolderOf(path).c_str(), &around) != 0 || (around.st_mode & S_IWOTH) == 0) {
        return;
    }
    if (rmdir(path.c_str()) == 0 || (errno != ENOTEMPTY && errno != EEXIST)) {
        return; // mostly there is no folder of this name at all
    }
    std::string aside = path + ".XXXXXX";
    if (mkdtemp(aside.data()) != nullptr && rename(path.c_str(), aside.c_str()) != 0) {
        (void)rmdir(aside.c_str());
    }
}

} // namespace ZARO
