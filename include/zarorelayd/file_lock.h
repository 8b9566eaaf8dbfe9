/// Advisory locks between processes.
#pragma once

#include <list>
#include <string>

#include <zarorelayd/export.h>

/// Locks a set of files, all or none, without ever waiting. For one thread. Owns its descriptors
/// and releases the locks when destroyed.
class ZARORELAYD_API FileLock {
public:
    /// A set of one file; null: an empty set. Locks nothing yet.
    FileLock(const char* path);
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    ~FileLock();

    /// Adds a file to the set, for the next Lock. The path is copied. False for null.
    bool AddFile(const char* path);

    /// Always false: the set only grows.
    bool RemoveFile(const char* path);

    /// Locks every file that this object does not hold yet and makes missing ones, mode 0644.
    /// `operation`: LOCK_SH or LOCK_EX. False, with no file locked any more, when one is held
    /// elsewhere, is a link, or can't be opened.
    bool Lock(int operation);

    /// Releases all locks; the files stay. True.
    bool Unlock();

private:
    std::list<std::string> files;
    std::list<int> fds; ///< for each file the descriptor that holds its lock; -1: not locked
};
