#include "common.h"

#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>

#include "platform/new_file.h"

namespace ZARO::Platform {
namespace {

thread_local int gLastError = 0;

} // namespace

int Fail(int error) noexcept {
    gLastError = error;
    return -1;
}

int ReadAll(int fd, size_t limit, std::string& text) {
    struct stat info {};
    if (fstat(fd, &info) != 0) {
        return errno;
    }
    if (!S_ISREG(info.st_mode)) {
        return S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
    }
    std::string content;
    char chunk[4096];
    for (;;) {
        const ssize_t count = read(fd, chunk, sizeof chunk);
        if (count == 0) {
            text = std::move(content);
            return 0;
        }
        if (count > 0) {
            content.append(chunk, static_cast<size_t>(count));
        } else if (errno != EINTR) {
            return errno;
        }
        if (content.size() > limit) {
            return EFBIG;
        }
    }
}

int ReadFile(const std::string& path, std::string& text) {
    // Not waiting matters before the kind of file is known: a FIFO would hold the open for ever.
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    return fd.IsOpen() ? ReadAll(fd.Get(), kMaxFileSize, text) : errno;
}

int ListFolder(const std::string& path, std::vector<std::string>& names) {
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(path.c_str()), closedir);
    if (!dir) {
        return errno;
    }
    names.clear();
    errno = 0; // the only way to tell the end from a failure
    while (const dirent* entry = readdir(dir.get())) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
        errno = 0;
    }
    const int error = errno;
    std::sort(names.begin(), names.end());
    return error;
}

int WriteAll(int fd, std::string_view text) {
    return ZARO::Relay::WriteAll(fd, text) ? 0 : errno;
}

void SyncFolder(const std::string& folder) {
    const UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.IsOpen()) {
        (void)fsync(fd.Get()); // not every file system can, and the change itself is made
    }
}

int CopyCut(std::string_view text, char* buf, int size) {
    size_t length = std::min(text.size(), static_cast<size_t>(size) - 1);
    if (length < text.size()) {
        while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) {
            --length;
        }
    }
    memcpy(buf, text.data(), length);
    buf[length] = '\0';
    return static_cast<int>(length);
}

int CopyWhole(std::string_view text, char* buf, int size) {
    if (!Fits(text, size)) {
        return ERANGE;
    }
    CopyCut(text, buf, size);
    return 0;
}

bool IsYes(std::string_view value) {
    return value.size() == 3 && strncasecmp(value.data(), "yes", 3) == 0;
}

} // namespace ZARO::Platform

unsigned int TLIBCErrGet(void) {
    return static_cast<unsigned int>(ZARO::Platform::gLastError);
}
