/// A whole device in a directory of its own, for the life of one test.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>

#include <stdexcept>

#include "base/paths.h"
#include "tests/support/processes.h"

/// Makes an empty root with a device's usual folders, makes it this process's root (and that of the
/// programs it starts) and removes it all at the end. One at a time in a process. Throws when the
/// disk fails: a test can't go on then.
class TempRoot : NoCopy {
public:
    TempRoot() {
        umask(022); // independent of this user's
        std::string pattern = (fs::temp_directory_path() / "zaro.XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr || !ZARO::paths::SetRoot(pattern)) {
            throw std::runtime_error("can't make a root " + pattern);
        }
        dir_ = ZARO::paths::Root();
        for (const char* folder : {"/etc", "/tmp", "/usr/zaro/bin", "/usr/zaro/etc/services.d",
                                   "/var/run", "/proc/net", "/proc/sys/kernel", "/sys/class/net"}) {
            fs::create_directories(dir_ + folder);
        }
        fs::permissions(dir_ + "/tmp", fs::perms(01777));
    }

    ~TempRoot() {
        unsetenv("ZARO_ROOT");
        std::error_code ignored; // what can't be removed stays in the temporary folder
        fs::remove_all(dir_, ignored);
    }

    const std::string& Dir() const { return dir_; }

    /// Where the device's `path` (absolute, as on an appliance) lies on this machine.
    std::string Path(const std::string& path) const { return dir_ + path; }

    /// Makes the device's file `path` and its folders; replaces one that is there.
    void Write(const std::string& path, const std::string& text, mode_t mode = 0644) const {
        const std::string file = Path(path);
        fs::create_directories(fs::path(file).parent_path());
        fs::remove(file);
        std::ofstream out(file, std::ios::binary);
        out << text;
        out.close();
        if (!out || chmod(file.c_str(), mode) != 0) {
            throw std::runtime_error("can't write " + file);
        }
    }

    /// The content of the device's file `path`; empty when there is no such file.
    std::string Read(const std::string& path) const { return ReadFile(Path(path)); }

private:
    std::string dir_;
};
