#include "config/json_text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include <json/reader.h>
#include <json/writer.h>

#include "platform/unique_fd.h"

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
    } catch (const Json::Exception& fault) { // nested too deep, unless memory ran out
        if (strstr(fault.what(), "allocate") != nullptr) {
            throw std::bad_alloc();
        }
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

Reading ReadText(const std::string& path, FileText& out, Links links) {
    out = FileText();
    const int noLinks = links == Links::Refuse ? O_NOFOLLOW : 0;
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | noLinks));
    if (!fd.IsOpen()) {
        const bool missing =
            errno == ENOENT || errno == ENOTDIR || (noLinks != 0 && errno == ELOOP);
        return missing ? Reading::Missing : Reading::Unreadable;
    }
    out.opened = true;
    struct stat info = {};
    if (fstat(fd.Get(), &info) != 0) {
        return Reading::Unreadable;
    }
    out.device = info.st_dev;
    out.inode = info.st_ino;
    out.owner = info.st_uid;
    if (!S_ISREG(info.st_mode)) {
        errno = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
        return Reading::Unreadable;
    }
    if (!ReadAll(fd.Get(), out.text)) {
        out.text.clear();
        return Reading::Unreadable;
    }
    return Reading::Done;
}

} // namespace ZARO::Relay::json
