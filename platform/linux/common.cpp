#include "common.h"

#include <string.h>
#include <strings.h>

#include <algorithm>
#include <filesystem>

#include "base/folder.h"
#include "base/read_file.h"

namespace ZARO::Platform {
namespace {

thread_local int gLastError = 0;

} // namespace

int Fail(int error) noexcept {
    gLastError = error;
    return -1;
}

int ReadWhole(const std::string& path, std::string& text) {
    FileText file;
    if (ReadFile(path, file, Trust::Anybodys) != Reading::Done) {
        return errno;
    }
    text = std::move(file.text);
    return 0;
}

int ListFolder(const std::string& path, std::vector<std::string>& names) {
    const std::error_code error = ForEachEntry(path, [&](const std::filesystem::path& file) {
        const std::string name = file.filename();
        if (name[0] != '.') {
            names.push_back(name);
        }
    });
    std::sort(names.begin(), names.end());
    return error.value();
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
