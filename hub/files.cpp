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
#include "base/names.h"
#include "base/read_file.h"
#include "base/replace_file.h"
#include "hub/secret.h"

namespace ZARO::RelayHub {

namespace {

constexpr std::size_t kLongestFile = 64 << 10; // bytes

bool Fail(const std::string& doing, std::string& error) {
    error = doing + ": " + strerror(errno);
    return false;
}

constexpr char kFirstRelay[] = "relay"; // the name of a hub's only relay
constexpr char kKeyEnd[] = ".key";
constexpr char kLockEnd[] = ".lock";

bool StartsWith(const std::string& text, const std::string& start) {
    return text.compare(0, start.size(), start) == 0;
}

/// "relay-NAME.key" or "relay-NAME.lock"
std::string RelayFile(const std::string& name, const char* end) {
    return name == kFirstRelay ? std::string(kFirstRelay) + end : "relay-" + name + end;
}

/// Whether `name` is a relay's own file, or a new one that is about to replace it.
bool IsRelayFile(const std::string& name) {
    const auto isKind = [&name](const std::string& end) {
        const std::size_t at = name.find(end);
        const std::string file = name.substr(0, at + end.size());
        return at != std::string::npos && (name == file || IsNewFileOf(name, file));
    };
    return StartsWith(name, kFirstRelay) && (isKind(kKeyEnd) || isKind(kLockEnd));
}

bool IsKnown(const std::string& name) {
    constexpr std::array kDatabase = {"lock",           "hub.db",     "hub.db-wal", "hub.db-shm",
                                      "hub.db-journal", "admin.sock", "admin.lock"};
    constexpr std::array kWritten = {"https.pem", "relay.key", "owner"};
    return std::find(kDatabase.begin(), kDatabase.end(), name) != kDatabase.end() ||
           IsRelayFile(name) ||
           std::any_of(kWritten.begin(), kWritten.end(), [&name](const char* file) {
               return name == file || IsNewFileOf(name, file) ||
                      name == std::string(file) + ".new"; // left by an earlier version
           });
}

/// Locks an open file. `taken` is the error when another process has locked it.
bool Lock(UniqueFd file, int kind, const std::string& name, const std::string& taken,
          UniqueFd& lock, std::string& error) {
    if (flock(file.Get(), kind | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            return Fail("can't lock " + name, error);
        }
        error = taken;
        return false;
    }
    lock = std::move(file);
    return true;
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

bool OpenDataFolder(const std::string& folder, FolderUse use, UniqueFd& lock, std::string& error) {
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
    const int kind = use == FolderUse::Alone ? LOCK_EX : LOCK_SH;
    return Lock(std::move(locked), kind, folder, "another hub uses " + folder, lock, error);
}

bool LockRelayName(const std::string& folder, const std::string& name, UniqueFd& lock,
                   std::string& error) {
    const std::string file = folder + "/" + RelayFile(name, kLockEnd);
    UniqueFd locked(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!locked.IsOpen()) {
        return Fail("can't write to " + folder, error);
    }
    return Lock(std::move(locked), LOCK_EX, file,
                "--relay-name: another relay named " + name + " runs on " + folder, lock, error);
}

UniqueFd WaitForFolder(const std::string& file) {
    const std::string folder = std::filesystem::path(file).parent_path();
    UniqueFd opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (opened.IsOpen()) {
        while (flock(opened.Get(), LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    return opened;
}

std::string HostKeyFile(const std::string& folder, const std::string& name) {
    return folder + "/" + RelayFile(name, kKeyEnd);
}

bool OwnerOf(const std::string& folder, std::string& owner, std::string& error) {
    constexpr std::size_t kLength = 32;
    const std::string file = folder + "/owner";
    for (bool made = false;; made = true) {
        std::optional<std::string> kept;
        if (!ReadSmallFile(file, kept, error)) {
            return false;
        }
        if (kept && kept->size() == kLength && IsMadeOf(*kept, kLength, "")) {
            owner = *kept;
            return true;
        }
        // Of two processes that make it at the same time, both use the one that was there first.
        NewFile fresh;
        fresh.onlyIfMissing = !kept;
        if (made || ReplaceFile(file, RandomText(kLength), fresh) != Replaced::Done) {
            return Fail("can't write " + file, error);
        }
    }
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
