#include "common.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <memory>

#include "base/own_lock.h"
#include "base/paths.h"
#include "base/read_file.h"
#include "base/replace_file.h"
#include "lines.h"

namespace ZARO::Platform {
namespace {

// Whoever holds the lock is replacing one small file; a disk that wakes up takes seconds.
constexpr std::chrono::seconds kLockPatience{10};

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

/// The file by which the writers of another take turns: its hidden companion in the same folder.
std::string LockOf(const std::string& file) {
    return FolderOf(file) + "." + file.substr(file.rfind('/') + 1) + ".lock";
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

/// The text of a settings file, and the owner and mode that its successor gets.
int ReadFormer(const std::string& file, std::string& text, struct stat& like) {
    if (stat(file.c_str(), &like) == 0) {
        return ReadWhole(file, text);
    }
    like.st_uid = geteuid();
    like.st_gid = getegid();
    like.st_mode = 0644;
    return errno == ENOENT ? 0 : errno;
}

int SetValue(const std::string& path, std::string_view key, std::string_view value) {
    std::string file;
    if (const int error = ResolveTarget(path, file)) {
        return error;
    }
    OwnLock lock(LockOf(file));
    if (!lock.Take(kLockPatience)) {
        return errno == EWOULDBLOCK ? EBUSY : errno;
    }
    struct stat like {};
    std::string before;
    if (const int error = ReadFormer(file, before, like)) {
        return error;
    }
    const std::string after = WithValue(before, key, value);
    if (after.size() > kSmallFile) {
        return EFBIG;
    }
    NewFile kind;
    kind.like = &like;
    const bool good = after == before || ReplaceFile(file, after, kind) == Replaced::Done;
    return good ? 0 : errno;
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
        if (const int error = ReadWhole(file, text)) {
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
