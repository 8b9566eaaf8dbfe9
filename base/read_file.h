/// Whole small files, read without ever waiting on one.
#pragma once

#include <sys/types.h>

#include <string>

namespace ZARO {

/// Far beyond every file of this system, and a bound on what a damaged or planted one can cost:
/// parsed JSON takes some fifty times its text.
constexpr std::size_t kSmallFile = std::size_t{1} << 20; // bytes

/// Which file is believed. All but the first refuse a link, which then counts as a missing file.
enum class Trust {
    Anybodys, ///< whatever the name leads to: for folders where only the right users can write
    NoLink,   ///< the name's own file, whoever made it
    Owners,   ///< the same, made by a trusted owner: for folders that anybody may write to
    Private,  ///< the same, made by this user and closed to all others: for credentials
};

/// What became of reading a file.
enum class Reading {
    Done,
    Missing,    ///< there is none, or a folder on the way to it is missing
    Distrusted, ///< it is there, but the rule forbids believing it; errno is EPERM
    Unreadable, ///< it is there; errno says why it can't be read: EFBIG when it is too large
};

/// A file's text, and which file it was.
struct FileText {
    std::string text;    ///< empty unless reading is done
    bool opened = false; ///< the rest is set; false also for a file that can't be opened
    dev_t device = 0;
    ino_t inode = 0;
    uid_t owner = 0;
    mode_t mode = 0;
};

/// Reads a regular file of at most `most` bytes, or a file of the kernel. Throws bad_alloc, and
/// nothing else.
Reading ReadFile(const std::string& path, FileText& out, Trust trust,
                 std::size_t most = kSmallFile);

/// Reads from where a descriptor stands to the end. False, with errno and `text` empty, on failure.
bool ReadAll(int fd, std::string& text, std::size_t most = kSmallFile);

/// Whether the owner of a file is root, this user or the owner of its folder, who could write the
/// daemon's own files in any case.
bool IsTrustedOwner(const std::string& path, uid_t owner);

/// Whether the name has a regular file that Trust::Owners believes.
bool IsTrustedFile(const std::string& path);

} // namespace ZARO
