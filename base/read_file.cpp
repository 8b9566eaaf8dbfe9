#include "base/read_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/replace_file.h"
#include "base/unique_fd.h"

namespace ZARO {

namespace {

/// Opening must not wait: a FIFO without a writer would hold it for ever.
constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

bool IsBelieved(const std::string& path, const struct stat& file, Trust trust) {
    switch (trust) {
    case Trust::Owners:
        return IsTrustedOwner(path, file.st_uid);
    case Trust::Private:
        return file.st_uid == geteuid() && (file.st_mode & 077) == 0;
    case Trust::Anybodys:
    case Trust::NoLink:
        break;
    }
    return true;
}

/// Also says which file it is.
Reading Judge(const std::string& path, int fd, Trust trust, FileText& out) {
    struct stat info = {};
    if (fstat(fd, &info) != 0) {
        return Reading::Unreadable;
    }
    out.device = info.st_dev;
    out.inode = info.st_ino;
    out.owner = info.st_uid;
    out.mode = info.st_mode;
    if (!S_ISREG(info.st_mode)) {
        errno = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
        return Reading::Unreadable;
    }
    if (!IsBelieved(path, info, trust)) {
        errno = EPERM;
        return Reading::Distrusted;
    }
    return Reading::Done;
}

} // namespace

Reading ReadFile(const std::string& path, FileText& out, Trust trust, std::size_t most) {
    out = FileText();
    const int noLink = trust == Trust::Anybodys ? 0 : O_NOFOLLOW;
    const UniqueFd fd(open(path.c_str(), kFlags | noLink));
    if (!fd.IsOpen()) {
        const bool missing = errno == ENOENT || errno == ENOTDIR || (noLink != 0 && errno == ELOOP);
        return missing ? Reading::Missing : Reading::Unreadable;
    }
    out.opened = true;
    const Reading judged = Judge(path, fd.Get(), trust, out);
    return judged != Reading::Done || ReadAll(fd.Get(), out.text, most) ? judged
                                                                        : Reading::Unreadable;
}

bool ReadAll(int fd, std::string& text, std::size_t most) {
    text.clear();
    char chunk[16384];
    for (;;) {
        const ssize_t count = read(fd, chunk, sizeof chunk);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count == 0) {
            return true;
        }
        if (count > 0 && text.size() + static_cast<std::size_t>(count) <= most) {
            text.append(chunk, static_cast<std::size_t>(count));
            continue;
        }
        const int error = count < 0 ? errno : EFBIG;
        text.clear();
        errno = error;
        return false;
    }
}

bool IsTrustedOwner(const std::string& path, uid_t owner) {
    struct stat folder = {};
    return owner == 0 || owner == geteuid() ||
           (stat(FolderOf(path).c_str(), &folder) == 0 && folder.st_uid == owner);
}

bool IsTrustedFile(const std::string& path) {
    struct stat file = {};
    return lstat(path.c_str(), &file) == 0 && S_ISREG(file.st_mode) &&
           IsTrustedOwner(path, file.st_uid);
}

} // namespace ZARO
