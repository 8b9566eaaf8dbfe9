#include "config/json_text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>

#include <json/reader.h>
#include <json/writer.h>

namespace ZARO::Relay::json {

namespace {

/// Far beyond every file of ours; parsed JSON takes some fifty times its text.
constexpr std::size_t kLargestFile = std::size_t{1} << 20;

bool ReadAll(int fd, std::string& out) {
    char buffer[16384];
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return got == 0;
        }
        if (out.size() + static_cast<std::size_t>(got) > kLargestFile) {
            errno = EFBIG;
            return false;
        }
        out.append(buffer, static_cast<std::size_t>(got));
    }
}

bool IsStrangers(const std::string& path, uid_t owner) {
    struct stat folder = {};
    const std::string name = path.substr(0, path.rfind('/') + 1);
    return owner != 0 && owner != geteuid() &&
           (stat(name.c_str(), &folder) != 0 || folder.st_uid != owner);
}

} // namespace

// Reader and the two writers are the forms whose texts the files and the servers know; jsoncpp
// marks them as superseded.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

bool Parse(const std::string& text, Json::Value& out) {
    try {
        Json::Reader reader;
        if (reader.parse(text, out, false)) {
            return true;
        }
    } catch (const Json::Exception&) { // nested too deep; want of memory says nothing of the text
    }
    out = Json::Value();
    return false;
}

std::string OneLine(const Json::Value& value) {
    return Json::FastWriter().write(value);
}

std::string Styled(const Json::Value& value) {
    return Json::StyledWriter().write(value);
}

#pragma GCC diagnostic pop

const Json::Value* Find(const Json::Value& object, const char* key) {
    return object.isObject() ? object.find(key, key + strlen(key)) : nullptr;
}

bool Get(const Json::Value& object, const char* key, std::string& out) {
    const Json::Value* member = Find(object, key);
    if (member == nullptr || !member->isString()) {
        return false;
    }
    out = member->asString();
    return true;
}

bool Get(const Json::Value& object, const char* key, std::int32_t& out) {
    const Json::Value* member = Find(object, key);
    if (member == nullptr || !member->isInt()) {
        return false;
    }
    out = member->asInt();
    return true;
}

Json::Value& Object(Json::Value& value) {
    if (!value.isObject()) {
        value = Json::Value(Json::objectValue);
    }
    return value;
}

Reading ReadText(const std::string& path, FileText& out, bool ownOnly) {
    out = FileText();
    const int fd = open(path.c_str(),
                        O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (ownOnly ? O_NOFOLLOW : 0));
    if (fd < 0) {
        const bool missing = errno == ENOENT || errno == ENOTDIR || (ownOnly && errno == ELOOP);
        return missing ? Reading::Missing : Reading::Unreadable;
    }
    out.opened = true;
    struct stat info = {};
    Reading result = Reading::Unreadable;
    int error = 0;
    if (fstat(fd, &info) != 0) {
        error = errno;
    } else if (ownOnly && IsStrangers(path, info.st_uid)) {
        result = Reading::Missing;
    } else if (!S_ISREG(info.st_mode)) {
        error = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
    } else if (ReadAll(fd, out.text)) {
        out.device = info.st_dev;
        out.inode = info.st_ino;
        result = Reading::Done;
    } else {
        error = errno;
        out.text.clear();
    }
    close(fd);
    errno = error;
    return result;
}

} // namespace ZARO::Relay::json
