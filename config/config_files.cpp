// RelaydConf's JSON files.
#define RELAY_LOG_UNIT "config.cpp"
#include <zarorelayd/config.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <new>

#include <zarorelayd/daemon.h>

#include "base/json.h"
#include "base/log.h"
#include "base/read_file.h"
#include "base/replace_file.h"
#include "config/json_file.h"

namespace ZARO::Relay {

namespace {

/// Moves a broken file out of the way, so that it is not read again, unless another process has
/// replaced it since.
void MoveAside(const std::string& path, const FileText& broken) {
    struct stat now = {};
    if (lstat(path.c_str(), &now) != 0) {
        return; // another reader was quicker
    }
    if (!S_ISLNK(now.st_mode) && (now.st_ino != broken.inode || now.st_dev != broken.device)) {
        return;
    }
    const std::string aside = path + ".bad";
    if (rename(path.c_str(), aside.c_str()) != 0) {
        RELAY_LOG(log::Error, "rename %s to .bad failed. %m", path.c_str());
        unlink(path.c_str());
    }
}

} // namespace

bool ReadJsonFile(const std::string& path, Json::Value& out, bool& readable, Trust trust) {
    out = Json::Value();
    readable = true;
    if (path.empty()) {
        return true;
    }
    FileText file;
    try {
        const Reading reading = ReadFile(path, file, trust);
        readable = reading != Reading::Unreadable;
        if (reading == Reading::Done && !json::Parse(file.text, out)) {
            RELAY_LOG(log::Error, "bad json format [%s]", path.c_str());
            MoveAside(path, file);
        }
    } catch (const std::bad_alloc&) { // says nothing about the file
        out = Json::Value();          // may be half read
        readable = false;
        errno = ENOMEM;
    }
    if (!readable) {
        RELAY_LOG(log::Error, "can not read [%s], %m", path.c_str());
    }
    return true; // also for a missing or broken file: callers look at the type of `out`
}

bool RelaydConf::ReadJsonFile(const std::string& path, Json::Value& out) {
    bool readable = false;
    return Relay::ReadJsonFile(path, out, readable);
}

bool RelaydConf::WriteJsonFile(const std::string& path, const Json::Value& value) {
    const std::string text = json::Styled(value);
    if (path == "-") {
        std::cout << text << std::flush;
        return true;
    }
    NewFile file;
    file.mode = 0644;
    file.needsMode = false;
    const Replaced replaced = path.empty() ? Replaced::NotOpened : ReplaceFile(path, text, file);
    switch (replaced) {
    case Replaced::NotOpened:
        RELAY_LOG(log::Error, "open failed [%s]", NewFileOf(path).c_str());
        return false;
    case Replaced::NotWritten:
        RELAY_LOG(log::Error, "write failed [%s], %m", NewFileOf(path).c_str());
        return false;
    case Replaced::NotPlaced: // the text was written; only the rename failed
        RELAY_LOG(log::Error, "rename to %s failed %m", path.c_str());
        break;
    case Replaced::Done:
        break;
    }
    return true;
}

} // namespace ZARO::Relay
