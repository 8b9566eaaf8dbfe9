/// Advisory locks between processes.
#pragma once

#include <list>
#include <string>

#include <zarorelayd/export.h>

/// Locks a set of files, all or none, without ever waiting. Not for sharing between threads; owns
/// its descriptors and gives the locks back when destroyed.
class ZARORELAYD_API FileLock {
public:
    /// A set of one file; null: an empty set.
    FileLock(const char* path);
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    ~FileLock();

    /// Adds a file to the set; it is locked by the next Lock. False for null.
    bool AddFile(const char* path);

    /// Always false: the set only grows.
    bool RemoveFile(const char* path);

    /// Locks every file that this object does not hold yet, making missing ones. `operation`:
    /// LOCK_SH or LOCK_EX. False, with no file locked, when any can't be opened or is held
    /// elsewhere.
    bool Lock(int operation);

    /// Gives all locks back.
    bool Unlock();

private:
    std::list<std::string> files;
    std::list<int> fds;
};
