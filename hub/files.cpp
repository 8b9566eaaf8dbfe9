#include "hub/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "base/folder.h"
#include "base/read_file.h"
#include "base/replace_file.h"

namespace ZARO::RelayHub {

namespace {

constexpr std::size_t kLongestFile = 64 << 10; // bytes

bool Fail(const std::string& doing, std::string& error) {
    error = doing + ": " + strerror(errno);
    return false;
}

bool IsKnown(const std::string& name) {
    constexpr std::array kDatabase = {"lock", "hub.db", "hub.db-wal", "hub.db-shm",
                                      "hub.db-journal"};
    constexpr std::array kWritten = {"https.pem", "relay.key"};
    return std::find(kDatabase.begin(), kDatabase.end(), name) != kDatabase.end() ||
           std::any_of(kWritten.begin(), kWritten.end(), [&name](const char* file) {
               return name == file || IsNewFileOf(name, file) ||
                      name == std::string(file) + ".new"; // left by an earlier version
           });
}

/// Whether the folder is empty, or only a hub of this user has worked there.
bool IsOurs(int folder, const std::string& name) {
    struct stat lock {};
    const bool hasLock = fstatat(folder, "lock", &lock, AT_SYMLINK_NOFOLLOW) == 0;
    if (hasLock && (!S_ISREG(lock.st_mode) || lock.st_uid != geteuid())) {
        return false;
    }
    bool isEmpty = true;
    bool allKnown = true;
    const std::error_code failed = ForEachEntry(name, [&](const std::filesystem::path& file) {
        allKnown = allKnown && IsKnown(file.filename());
        isEmpty = false;
    });
    return !failed && allKnown && (hasLock || isEmpty);
}

/// Closes the folder to all but this user. One that has another owner is left as it is.
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
    // Where everybody may write, what looks like a hub's may have been planted.
    if ((status.st_mode & (S_ISVTX | S_IWOTH)) != 0 || !IsOurs(folder, name)) {
        error = "can't use " + name + ": others may enter it and it is no hub's alone";
        return false;
    }
    return fchmod(folder, 0700) == 0 || Fail("can't use " + name, error);
}

} // namespace

bool OpenDataFolder(const std::string& folder, UniqueFd& lock, std::string& error) {
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        return Fail("can't make " + folder, error);
    }
    const UniqueFd opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened.IsOpen()) {
        return Fail("can't use " + folder, error);
    }
    if (!MakePrivate(opened.Get(), folder, error)) {
        return false;
    }
    UniqueFd locked(openat(opened.Get(), "lock", O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!locked.IsOpen()) {
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
    return ReplaceFile(file, content, NewFile()) == Replaced::Done ||
           Fail("can't write " + file, error);
}

bool ReadSmallFile(const std::string& file, std::optional<std::string>& content,
                   std::string& error) {
    FileText read;
    content.reset();
    switch (ReadFile(file, read, Trust::Anybodys, kLongestFile)) {
    case Reading::Done:
        content = std::move(read.text);
        return true;
    case Reading::Missing:
        return true;
    case Reading::Distrusted:
    case Reading::Unreadable:
        break;
    }
    if (errno == EFBIG) {
        error = file + " is too large";
        return false;
    }
    return Fail("can't read " + file, error);
}

} // namespace ZARO::RelayHub
