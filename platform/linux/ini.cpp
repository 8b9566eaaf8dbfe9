#include "common.h"

#include <optional>

#include "base/paths.h"
#include "lines.h"

namespace ZARO::Platform {
namespace {

/// The section that a header line opens. A malformed header opens the empty section, which nobody
/// can ask for: what follows must not go to the section before.
std::optional<std::string_view> ParseHeader(std::string_view line) {
    line = Trim(line);
    if (line.empty() || line.front() != '[') {
        return std::nullopt;
    }
    const bool whole = line.back() == ']' && line.find('\0') == line.npos;
    return whole ? Trim(line.substr(1, line.size() - 2)) : std::string_view();
}

/// Calls visit(section, assignment) for every assignment below a section header, in order, until it
/// returns true.
template <typename Visit> void VisitSections(std::string_view text, Visit visit) {
    std::string_view section;
    for (std::string_view line; TakeLine(text, line);) {
        if (const auto header = ParseHeader(line)) {
            section = *header;
            continue;
        }
        const auto assignment = ParseAssignment(line);
        if (assignment && !section.empty() && visit(section, *assignment)) {
            return;
        }
    }
}

/// Finds `key` of `section`; the value lies in the text. The last one counts, as everywhere.
std::optional<std::string_view> FindInSection(std::string_view text, std::string_view section,
                                              std::string_view key) {
    std::optional<std::string_view> value;
    VisitSections(text, [&](std::string_view name, const Assignment& found) {
        if (name == section && found.key == key) {
            value = found.value;
        }
        return false;
    });
    return value;
}

} // namespace
} // namespace ZARO::Platform

using namespace ZARO::Platform;

int TLIBCFileGetSectionByValue(const char* file, const char* value, char* section, int cbSection,
                               char* key, int cbKey) {
    return Guard([&] {
        if (file == nullptr || value == nullptr || section == nullptr || cbSection <= 0 ||
            key == nullptr || cbKey <= 0) {
            return Fail(EINVAL);
        }
        std::string text;
        if (const int error = ReadWhole(file, text)) {
            return Fail(error);
        }
        int error = ENOENT;
        VisitSections(text, [&](std::string_view name, const Assignment& found) {
            if (found.value != value) {
                return false;
            }
            error = CopyWhole(name, section, cbSection);
            if (error == 0) {
                CopyCut(found.key, key, cbKey);
            }
            return true;
        });
        return error == 0 ? 0 : Fail(error);
    });
}

int TLIBCFileGetSectionValue(const char* file, const char* section, const char* key, char* buf,
                             int size) {
    return Guard([&] {
        if (file == nullptr || section == nullptr || key == nullptr || buf == nullptr ||
            size <= 0) {
            return Fail(EINVAL);
        }
        std::string text;
        if (const int error = ReadWhole(file, text)) {
            return Fail(error);
        }
        const auto value = FindInSection(text, section, key);
        return value ? CopyCut(*value, buf, size) : Fail(ENOENT);
    });
}

const char* TLIBServiceRouterBasepathGet(void) {
    static thread_local std::string path;
    const int result = Guard([&] {
        path = paths::PortForwardFile();
        return 0;
    });
    return result == 0 ? path.c_str() : nullptr;
}

int ZARODDNSConfigGet(const char* provider, struct _tag_ZARO_DDNS* record) {
    return Guard([&] {
        if (provider == nullptr || record == nullptr) {
            return Fail(EINVAL);
        }
        std::string text;
        if (const int error = ReadWhole(paths::DdnsFile(), text)) {
            return Fail(error);
        }
        const auto hostname = FindInSection(text, provider, "hostname");
        if (!hostname || hostname->empty()) {
            return Fail(ENOENT);
        }
        struct _tag_ZARO_DDNS found {};
        int error = CopyWhole(provider, found.szProvider, sizeof found.szProvider);
        if (error == 0) {
            error = CopyWhole(*hostname, found.szHostname, sizeof found.szHostname);
        }
        if (error != 0) {
            return Fail(error);
        }
        *record = found;
        return 0;
    });
}
