/// The files by which other programs learn how the daemon is doing.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <string>

namespace ZARO::Relay::app {

/// Owns the status file. Readers see a whole file at every instant, and none once this is gone.
class StatusFile {
public:
    StatusFile();
    StatusFile(const StatusFile&) = delete;
    StatusFile& operator=(const StatusFile&) = delete;
    ~StatusFile();

    /// Replaces the file if the status differs from what it holds.
    void Write(const Json::Value& status);

    /// Marks the file as in use, for cleaners of the folder. If one of them, or anybody else, has
    /// removed it, the next Write puts it back.
    void Refresh();

private:
    std::string path_;
    pid_t owner_;
    std::string written_;
    ino_t inode_ = 0; ///< of the file that was written last
    bool failing_ = false;
};

/// Writes a dump, in one piece, into the file that whoever asked for it has made. Without such a
/// file nothing is written. A link, and a file that is neither root's nor ours, is left alone.
void WriteDump(const Json::Value& dump);

} // namespace ZARO::Relay::app
