/// A part of the machine that only this process and its children see.
#pragma once

#include <sched.h>
#include <sys/mount.h>

#include <cstdlib>

#include "tests/support/processes.h"

/// Enters namespaces of these kinds, as their root if CLONE_NEWUSER is one of them. False, with
/// errno, where the machine does not allow it.
inline bool EnterNamespaces(int kinds) {
    const std::string user = "0 " + std::to_string(geteuid()) + " 1";
    const std::string group = "0 " + std::to_string(getegid()) + " 1";
    if (unshare(kinds) != 0) {
        return false;
    }
    if ((kinds & CLONE_NEWUSER) != 0) {
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << user;
        std::ofstream("/proc/self/gid_map") << group;
    }
    return true;
}

/// Puts all temporary files on a disk in memory of this size, for instance "24m".
inline bool EnterDiskInMemory(const std::string& size) {
    return EnterNamespaces(CLONE_NEWNS | (geteuid() != 0 ? CLONE_NEWUSER : 0)) &&
           mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/mnt", "tmpfs", 0, ("size=" + size).c_str()) == 0 &&
           setenv("TMPDIR", "/mnt", 1) == 0;
}
