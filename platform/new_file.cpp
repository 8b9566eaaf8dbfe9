#include "platform/new_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <set>

namespace ZARO::Relay {

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
/// process is not seen from here, so the file must be old as well. What is not ours, or no plain
/// file, is not ours to remove.
bool IsAbandoned(int folder, const char* name, pid_t writer) {
    struct stat info = {};
    return kill(writer, 0) != 0 && errno == ESRCH &&
           fstatat(folder, name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode) &&
           info.st_uid == geteuid() && time(nullptr) - info.st_mtime > kAbandonedAfter;
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

int OpenNewFile(const std::string& path) {
    RemoveLeftNewFiles(path);
    FreeName(NewFileOf(path));
    return open(NewFileOf(path).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                0600);
}

void RemoveLeftNewFiles(const std::string& path) {
    static std::set<std::string> cleaned; // by temporary name: a child after a fork is a new writer
    if (!cleaned.insert(NewFileOf(path)).second) {
        return;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(FolderOf(path).c_str()), closedir);
    const std::string prefix = path.substr(path.rfind('/') + 1) + kMark;
    while (const dirent* entry = folder != nullptr ? readdir(folder.get()) : nullptr) {
        const pid_t writer = WriterOf(entry->d_name, prefix);
        if (writer > 0 && IsAbandoned(dirfd(folder.get()), entry->d_name, writer)) {
            (void)unlinkat(dirfd(folder.get()), entry->d_name, 0);
        }
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

} // namespace ZARO::Relay
