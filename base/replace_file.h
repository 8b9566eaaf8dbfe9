/// Files written whole: readers find the former one or the new one, never half of one.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

struct stat;

namespace ZARO {

/// How a new file is written.
struct NewFile {
    mode_t mode = 0600;                ///< whatever the umask is
    bool needsMode = true;             ///< else it may stay 0600: some file systems have no modes
    const struct stat* like = nullptr; ///< instead: this file's mode and, if allowed, its owner
    bool lasts = true;          ///< is on the disk before others see it, and survives a power cut
    bool onlyIfMissing = false; ///< a file that is there already stays; that is Done as well
};

/// What became of it. But for Done, errno says why, and nothing is left of the new file.
enum class Replaced {
    Done,
    NotOpened,  ///< no new file can be made in the folder
    NotWritten, ///< not whole, or not on the disk
    NotPlaced,  ///< whole, but it could not take the name
};

/// Puts a file with this text in the place of `path`, under a temporary name and by rename. Until
/// it is whole only its owner can read it. Removes what killed writers left, as below. A folder
/// that has the name in a place open to all goes out of the way, as MoveFolderAway does it. Blocks
/// for the disk. For one thread at a time per path.
Replaced ReplaceFile(const std::string& path, std::string_view text, const NewFile& file);

/// The temporary name that ReplaceFile uses in this process, for messages.
std::string NewFileOf(const std::string& path);

/// Whether a name is the temporary one of a file, in whatever process wrote it.
bool IsNewFileOf(const std::string& name, const std::string& file);

/// Removes what killed writers of `path` left under temporary names. The first call for a path in
/// this process does it, the others return at once: the folder may be large.
void RemoveLeftNewFiles(const std::string& path);

/// Writes the whole text, however often the system interrupts or shortens a write. False, with
/// errno, on failure.
bool WriteAll(int fd, std::string_view text);

/// The folder part of a path, for opening it.
std::string FolderOf(const std::string& path);

/// Makes what was renamed, linked or removed in a folder survive a power cut, as far as the file
/// system can. By then it has happened, so there is nothing to report.
void SyncFolder(const std::string& folder);

/// Removes the file or link of this name; deals with a folder as MoveFolderAway does. Failure shows
/// when the name is used.
void FreeName(const std::string& path);

/// Frees a name that a folder has, if the folder around it is open to all users, as /tmp is: there,
/// anybody could keep us from writing for good. An empty folder is removed. A full one is renamed,
/// since its content may be anybody's. In any other place it is left alone: whoever may write there
/// has put it there on purpose.
void MoveFolderAway(const std::string& path);

} // namespace ZARO
