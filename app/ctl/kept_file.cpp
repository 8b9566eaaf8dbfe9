#include "app/ctl/kept_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/ascii.h"
#include "base/json.h"
#include "base/read_file.h"
#include "base/replace_file.h"

namespace ZARO::Relay::ctl {

namespace {

// As hexadecimal digits, since JSON has no place for bytes that are no UTF-8.

std::string ToHex(const std::string& bytes) {
    std::string hex;
    for (const char each : bytes) {
        const auto byte = static_cast<unsigned char>(each);
        hex += "0123456789abcdef"[byte >> 4];
        hex += "0123456789abcdef"[byte & 15];
    }
    return hex;
}

bool FromHex(const std::string& hex, std::string& bytes) {
    bytes.clear();
    for (std::size_t at = 0; at + 1 < hex.size(); at += 2) {
        const int high = HexValue(hex[at]);
        const int low = HexValue(hex[at + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        bytes += static_cast<char>(high * 16 + low);
    }
    return hex.size() % 2 == 0;
}

bool IsSame(const KeptFile& one, const KeptFile& other) {
    return one.there == other.there &&
           (!one.there || (one.text == other.text && one.mode == other.mode &&
                           one.owner == other.owner && one.group == other.group));
}

} // namespace

bool KeptFile::Take(const std::string& path) {
    FileText file;
    const Reading reading = ReadFile(path, file, Trust::Anybodys);
    struct stat info = {};
    *this = KeptFile();
    if (reading == Reading::Missing) {
        return true;
    }
    if (reading != Reading::Done || stat(path.c_str(), &info) != 0) {
        return false;
    }
    there = true;
    text = file.text;
    mode = info.st_mode;
    owner = info.st_uid;
    group = info.st_gid;
    return true;
}

bool KeptFile::PutBack(const std::string& path) const {
    KeptFile now;
    if (now.Take(path) && IsSame(now, *this)) {
        return true;
    }
    if (!there) {
        const bool gone = unlink(path.c_str()) == 0 || errno == ENOENT;
        SyncFolder(FolderOf(path));
        return gone;
    }
    struct stat like = {};
    like.st_mode = mode;
    like.st_uid = owner;
    like.st_gid = group;
    NewFile file;
    file.needsMode = false;
    file.like = &like;
    return ReplaceFile(path, text, file) == Replaced::Done;
}

Json::Value KeptFile::Write() const {
    Json::Value value(Json::objectValue);
    if (there) {
        value["hex"] = ToHex(text);
        value["mode"] = Json::UInt(mode);
        value["owner"] = Json::UInt(owner);
        value["group"] = Json::UInt(group);
    }
    return value;
}

bool KeptFile::Read(const Json::Value& value) {
    *this = KeptFile();
    if (!value.isObject() || value.empty()) {
        return value.isObject();
    }
    const auto take = [&](const char* key, auto& number) {
        const Json::Value* found = json::Find(value, key);
        const bool good = found != nullptr && found->isUInt();
        number = good ? found->asUInt() : 0;
        return good;
    };
    there = true;
    return FromHex(json::TextOf(value, "hex"), text) && take("mode", mode) &&
           take("owner", owner) && take("group", group);
}

} // namespace ZARO::Relay::ctl
