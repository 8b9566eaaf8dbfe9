/// The steps that all who replace a file by a new one have in common.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <set>
#include <string>
#include <string_view>

namespace ZARO::Relay {

/// Writes a whole text, however often the system interrupts or shortens a write. errno tells why
/// it failed.
inline bool WriteAll(int fd, std::string_view text) {
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

/// The folder part of a path, for opening it.
inline std::string FolderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

/// The new file's name while `process` writes it.
inline std::string NewFileOf(const std::string& path, pid_t process = getpid()) {
    return path + ".tmp." + std::to_string(process);
}

/// Removes the new files of writers that were killed: each would stay for ever, since no other
/// process looks for that name. Once a process and path: the folder may be large.
inline void RemoveLeftNewFiles(const std::string& path) {
    static std::set<std::string> swept;
    if (!swept.insert(NewFileOf(path)).second) { // which names the process, after a fork too
        return;
    }
    DIR* folder = opendir(FolderOf(path).c_str());
    if (folder == nullptr) {
        return;
    }
    const std::string prefix = path.substr(path.rfind('/') + 1) + ".tmp.";
    while (const dirent* entry = readdir(folder)) {
        const std::string name = entry->d_name;
        const int writer = name.rfind(prefix, 0) == 0 ? atoi(name.c_str() + prefix.size()) : 0;
        if (writer > 0 && name == prefix + std::to_string(writer) && kill(writer, 0) != 0 &&
            errno == ESRCH) {
            (void)unlinkat(dirfd(folder), entry->d_name, 0);
        }
    }
    closedir(folder);
}

/// Frees a file's name that a folder has: where anybody can make one, it would be in the way for
/// ever. What lies in it may be anybody's, so a full one is only moved aside.
inline void MoveFolderAway(const std::string& path) {
    if (rmdir(path.c_str()) == 0 || (errno != ENOTEMPTY && errno != EEXIST)) {
        return; // nor is it a folder, mostly
    }
    std::string aside = path + ".XXXXXX";
    if (mkdtemp(aside.data()) != nullptr && rename(path.c_str(), aside.c_str()) != 0) {
        (void)rmdir(aside.c_str());
    }
}

/// Removes whatever has this name, which is to be a new file's.
inline void FreeName(const std::string& path) {
    if (unlink(path.c_str()) != 0 && errno == EISDIR) {
        MoveFolderAway(path);
    }
}

/// Opens the new file that is to replace `path`, closed to others; -1, with errno, on failure. What
/// has its name (a leftover of an earlier process with our id, or a link planted in a folder that
/// anybody may write to) is replaced, never written through.
inline int OpenNewFile(const std::string& path) {
    RemoveLeftNewFiles(path);
    FreeName(NewFileOf(path));
    return open(NewFileOf(path).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                0600);
}

} // namespace ZARO::Relay
