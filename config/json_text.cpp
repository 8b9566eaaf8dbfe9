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

constexpr std::size_t kLargestFile = std::size_t{16} << 20;

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
    } catch (const std::exception&) { // nested too deep
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

bool ReadText(const std::string& path, std::string& out) {
    out.clear();
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        return false;
    }
    struct stat info;
    const bool good = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && ReadAll(fd, out);
    close(fd);
    if (!good) {
        out.clear();
    }
    return good;
}

} // namespace ZARO::Relay::json
