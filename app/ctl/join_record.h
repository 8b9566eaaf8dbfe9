/// What a join found on the device, kept in a file until the device leaves the hub.
#pragma once

#include <json/value.h>

#include <string>

#include "app/ctl/device_state.h"
#include "base/own_lock.h"

namespace ZARO::Relay::ctl {

/// One join or leave at a time. The file is written before anything else changes, so that whatever
/// a killed join has left can be put right. Only its owner can read it.
class JoinRecord {
public:
    JoinRecord();

    /// Waits up to 5 s for another join or leave, reads the file, and undoes a join that was killed
    /// on the way. 0, or the exit code after printing the reason.
    int Open();

    /// Whether Open has undone something.
    bool HasMended() const { return mended_; }
    bool IsJoined() const { return found_.isObject(); }
    /// The hub that the device has joined, as "https://HOST:PORT".
    std::string Hub() const;
    /// What the oldest join since the last leave found; false when the file has another form.
    bool Found(DeviceState& state) const { return state.Read(found_); }

    /// A join begins: the device is as `now` says. 0, or the exit code after printing the reason.
    int Begin(const DeviceState& now);
    /// It has worked. 0, or the exit code after printing the reason.
    int Finish(const std::string& hub);
    /// It has not: the device becomes what it was at Begin. 0, or the exit code after printing the
    /// reason.
    int Undo();
    /// The device has left: nothing is kept any more. 0, or the exit code after printing the
    /// reason.
    int Remove();

    /// Prints that the file has another form, and gives the exit code.
    static int TellDamaged();

private:
    int Read();
    int Write() const;

    OwnLock lock_;
    std::string hub_;
    Json::Value found_;   ///< by the oldest join; null: not joined
    Json::Value attempt_; ///< by the join that is under way; null: none
    bool mended_ = false;
};

} // namespace ZARO::Relay::ctl
