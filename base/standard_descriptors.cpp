#include "base/standard_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

namespace ZARO {

void FillStandardDescriptors() {
    int fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR);
    }
    if (fd >= 0) {
        close(fd);
    }
}

} // namespace ZARO
