#include "hub/store.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/unique_fd.h"

namespace ZARO::RelayHub {

bool Store::Open(const std::string& file, PortPool pool, std::string& error) {
    services.UsePorts(std::move(pool));
    // SQLite gives the files beside it the mode of this one, so it is made private first.
    UniqueFd made(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!made.IsOpen()) {
        error = "can't open " + file + ": " + strerror(errno);
        return false;
    }
    (void)made.Close(); // closed later, it would take SQLite's locks on the file with it
    try {
        access_.Open(file);
        return true;
    } catch (const DatabaseFault& fault) {
        error = "can't use " + file + ": " + fault.what();
        if (fault.kind == FaultKind::Damage) {
            error += "; put a copy back, or move it away, which makes every device register again;"
                     " remove its -wal and -shm files with it";
        }
    } catch (const std::exception& fault) {
        error = "can't use " + file + ": " + fault.what();
    }
    return false;
}

} // namespace ZARO::RelayHub
