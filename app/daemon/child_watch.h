/// The background ssh processes: their deaths are seen at once, and none is left over.
#pragma once

#include <sys/select.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <set>
#include <string>

#include "app/common/clock.h"
#include "base/unique_fd.h"

namespace ZARO::Relay::app {

/// Owns one pidfd per process; a process that gets none is checked every second. The daemon is
/// their subreaper, so each is reaped here when it has ended. For the daemon's one loop; nothing
/// blocks but EndAll.
class ChildWatch {
public:
    /// Watches a process; false when it is gone already.
    bool Add(pid_t pid);

    /// Adds the descriptors to `read`.
    void AddTo(fd_set& read, int& maxfd) const;

    /// Reaps and forgets what has ended.
    void Reap(Time now);

    /// Asks every process that is not in `owned` to end, and kills it when it has not ended within
    /// a second.
    void EndUnowned(const std::set<pid_t>& owned, Time now);

    /// When EndUnowned is to be called next; Time::max() when nothing waits.
    Time NextDue() const;

    /// Ends every process and waits until it has gone. One that takes longer than `patience` is
    /// killed.
    void EndAll(milliseconds patience);

private:
    struct Child {
        UniqueFd pidfd; ///< none on an old kernel, or when descriptors ran out
        Time killAt;    ///< Time::max() while it is owned
        Time reapAt;    ///< when to try again to reap one that has ended but is not our child yet
    };

    std::map<pid_t, Child> children_;
};

/// Whether a process is the ssh whose password file's name ends in exactly `ending`, "PID.SERVICE".
bool ServesPasswordFile(pid_t pid, const std::string& ending);

/// Ends the ssh processes of this root whose command line names a password file that `isStray`
/// picks by the end of its name, "PID.SERVICE", waiting at most 1 s, and removes such files. Only
/// processes and files of the daemon's own user are touched.
void EndStrays(const std::function<bool(const std::string&)>& isStray);

} // namespace ZARO::Relay::app
