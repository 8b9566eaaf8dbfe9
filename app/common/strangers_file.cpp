#include "app/common/strangers_file.h"

#include <sys/stat.h>
#include <unistd.h>

namespace ZARO::Relay::app {

bool IsStrangersFile(const std::string& path) {
    struct stat info = {};
    return lstat(path.c_str(), &info) == 0 &&
           (S_ISLNK(info.st_mode) ||
            (S_ISREG(info.st_mode) && (info.st_uid != geteuid() || info.st_nlink != 1)));
}

} // namespace ZARO::Relay::app
