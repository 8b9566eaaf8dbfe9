/// The files by which other programs learn how the daemon is doing.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <string>

namespace ZARO::Relay::app {

/// Owns the status file: readers see a whole one at every instant, and none after it is gone.
class StatusFile {
public:
    StatusFile();
    StatusFile(const StatusFile&) = delete;
    StatusFile& operator=(const StatusFile&) = delete;
    ~StatusFile();

    /// Replaces the file if the status differs from what it holds.
    void Write(const Json::Value& status);

    /// Keeps the file alive: the next Write replaces it when a cleaner of the folder, or anybody
    /// else, has taken it away.
    void Refresh();

private:
    std::string path_;
    pid_t owner_;
    std::string written_;
    ino_t inode_ = 0; ///< of the file that was written last
    bool failing_ = false;
};

/// Writes a dump into the file that an asker made for it, in one piece; a file that is not there,
/// is a link, or belongs to somebody else than root or us is left alone.
void WriteDump(const Json::Value& dump);

} // namespace ZARO::Relay::app
