/// The steps of replacing a file by a new one. For one thread.
#pragma once

#include <string>
#include <string_view>

namespace ZARO::Relay {

/// Writes the whole text, however often the system interrupts or shortens a write. False, with
/// errno, on failure.
bool WriteAll(int fd, std::string_view text);

/// The folder part of a path, for opening it.
std::string FolderOf(const std::string& path);

/// The temporary name of the file that this process writes in order to replace `path`.
std::string NewFileOf(const std::string& path);

/// Opens that file for writing, readable by its owner only; -1, with errno, on failure. Whatever
/// has the name is removed as by FreeName, and never written through: it may be a leftover of an
/// earlier process with our id, or a link that somebody planted. Cleans up first, as below.
int OpenNewFile(const std::string& path);

/// Removes what killed writers of `path` left under their temporary names. The first call for a
/// path in this process does it, the others return at once: the folder may be large.
void RemoveLeftNewFiles(const std::string& path);

/// Removes the file or link of this name; deals with a folder as MoveFolderAway does. Failure shows
/// when the name is used.
void FreeName(const std::string& path);

/// Frees a name that a folder has, if the folder around it is open to all users, as /tmp is: there,
/// anybody could keep us from writing for good. An empty folder is removed. A full one is renamed,
/// since its content may be anybody's. In any other place it is left alone: whoever may write there
/// has put it there on purpose.
void MoveFolderAway(const std::string& path);

} // namespace ZARO::Relay
