#include "app/ctl/join_record.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "app/common/clock.h"
#include "app/ctl/report.h"
#include "base/json.h"
#include "base/paths.h"
#include "base/read_file.h"
#include "base/replace_file.h"
#include "base/terminal.h"

namespace ZARO::Relay::ctl {

namespace {

constexpr app::seconds kLockPatience{5};
/// Three small files as hexadecimal digits, twice.
constexpr std::size_t kLargest = 13 * kSmallFile;

Json::Value MemberOf(const Json::Value& object, const char* key) {
    const Json::Value* member = json::Find(object, key);
    return member != nullptr ? *member : Json::Value();
}

} // namespace

JoinRecord::JoinRecord() : lock_(LockOf(paths::JoinFile())) {
}

std::string JoinRecord::Hub() const {
    return hub_.empty() ? "the hub" : Clean(hub_, 300);
}

int JoinRecord::Read() {
    FileText file;
    const Reading reading = ReadFile(paths::JoinFile(), file, Trust::Private, kLargest);
    if (reading == Reading::Missing) {
        return kSuccess;
    }
    if (reading != Reading::Done) {
        return Fail(kNoAnswer, paths::JoinFile() + " can't be read: " + strerror(errno),
                    RootOr("it must belong to this user and be closed to others"));
    }
    Json::Value document;
    if (!json::Parse(file.text, document, json::Grammar::Strict)) {
        return TellDamaged();
    }
    hub_ = json::TextOf(document, "hub");
    found_ = MemberOf(document, "found");
    attempt_ = MemberOf(document, "attempt");
    return kSuccess;
}

int JoinRecord::Open() {
    if (!lock_.Take(kLockPatience)) {
        return errno == EWOULDBLOCK
                   ? Fail(kLocked, "another join or leave is under way", "wait until it has ended")
                   : Fail(kNoAnswer, LockOf(paths::JoinFile()) + ": " + strerror(errno),
                          RootOr("see whether the folder is there and can be written"));
    }
    const int code = Read();
    if (code != kSuccess || !attempt_.isObject()) {
        return code;
    }
    mended_ = true;
    return Undo();
}

int JoinRecord::Begin(const DeviceState& now) {
    attempt_ = now.Write();
    if (!found_.isObject()) {
        found_ = attempt_;
    }
    return Write();
}

int JoinRecord::Finish(const std::string& hub) {
    hub_ = hub;
    attempt_ = Json::Value();
    return Write();
}

int JoinRecord::Undo() {
    DeviceState before;
    if (!before.Read(attempt_)) {
        return TellDamaged();
    }
    const int code = before.PutBack();
    if (code != kSuccess) {
        return code; // it is kept, so that another try can do it
    }
    const bool first = attempt_ == found_;
    attempt_ = Json::Value();
    return first ? Remove() : Write();
}

int JoinRecord::Remove() {
    found_ = Json::Value();
    if (unlink(paths::JoinFile().c_str()) != 0 && errno != ENOENT) {
        return Fail(kNoAnswer, paths::JoinFile() + " can't be removed: " + strerror(errno),
                    RootOr("see whether the disk is read-only"));
    }
    SyncFolder(FolderOf(paths::JoinFile()));
    return kSuccess;
}

int JoinRecord::TellDamaged() {
    return Fail(kUnusable, paths::JoinFile() + " is damaged",
                "put the configuration right by hand and remove that file");
}

int JoinRecord::Write() const {
    Json::Value document;
    document["hub"] = hub_;
    document["found"] = found_;
    if (attempt_.isObject()) {
        document["attempt"] = attempt_;
    }
    if (ReplaceFile(paths::JoinFile(), json::Pretty(document), NewFile()) == Replaced::Done) {
        return kSuccess;
    }
    return Fail(kNoAnswer, paths::JoinFile() + " can't be written: " + strerror(errno),
                RootOr("see whether the disk is full or read-only"));
}

} // namespace ZARO::Relay::ctl
