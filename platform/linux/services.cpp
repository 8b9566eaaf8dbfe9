#include "common.h"

#include <algorithm>
#include <map>
#include <memory>
#include <vector>

#include "base/ascii.h"
#include "base/paths.h"
#include "lines.h"
#include "number.h"

namespace ZARO::Platform {
namespace {

constexpr std::string_view kSuffix = ".conf";

/// A service and everything that its record points to, so it must not be moved.
struct Service {
    Service() = default;
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    ZARO_FW_SERVICE record{};
    TLIB_SZLIST ports{};
    std::vector<std::string> texts;
    std::vector<char*> pointers;
};

/// Adds the ports of a list separated by commas and blanks, each once; false if a word is no port.
bool ParsePorts(std::string_view list, std::vector<int>& ports) {
    constexpr std::string_view kSeparators = ", \t";
    for (;;) {
        const size_t begin = std::min(list.find_first_not_of(kSeparators), list.size());
        list.remove_prefix(begin);
        if (list.empty()) {
            return true;
        }
        const std::string_view word = list.substr(0, list.find_first_of(kSeparators));
        list.remove_prefix(word.size());
        int port = 0;
        if (!ParsePort(word, port)) {
            return false;
        }
        if (std::find(ports.begin(), ports.end(), port) == ports.end()) {
            ports.push_back(port);
        }
    }
}

bool FillPorts(std::string_view text, Service& service) {
    std::vector<int> tcp;
    std::vector<int> udp;
    if (!ParsePorts(FindValue(text, "tcp").value_or(""), tcp) ||
        !ParsePorts(FindValue(text, "udp").value_or(""), udp)) {
        return false;
    }
    service.record.nTcp = static_cast<unsigned int>(tcp.size());
    service.record.nUdp = static_cast<unsigned int>(udp.size());
    for (const int port : udp) {
        if (std::find(tcp.begin(), tcp.end(), port) == tcp.end()) {
            tcp.push_back(port);
        }
    }
    for (const int port : tcp) {
        service.texts.push_back(std::to_string(port));
    }
    for (std::string& port : service.texts) {
        service.pointers.push_back(port.data());
    }
    service.ports = {static_cast<int>(service.pointers.size()), service.pointers.data()};
    service.record.pPorts = service.pointers.empty() ? nullptr : &service.ports;
    return true;
}

/// Fills a service from its definition; false when that is broken. A title can be cut, but not what
/// something is looked up by.
bool FillService(std::string_view name, std::string_view text, Service& service) {
    ZARO_FW_SERVICE& record = service.record;
    CopyCut(FindValue(text, "title").value_or(""), record.szTitle, sizeof record.szTitle);
    return CopyWhole(name, record.szName, sizeof record.szName) == 0 &&
           CopyWhole(FindValue(text, "section").value_or(""), record.szSection,
                     sizeof record.szSection) == 0 &&
           CopyWhole(FindValue(text, "key").value_or(""), record.szKey, sizeof record.szKey) == 0 &&
           FillPorts(text, service);
}

/// The service that a file defines, named after the file; empty when it defines none.
std::string_view ServiceName(std::string_view file) {
    if (file.size() <= kSuffix.size() || file.substr(file.size() - kSuffix.size()) != kSuffix) {
        return {};
    }
    const std::string_view name = file.substr(0, file.size() - kSuffix.size());
    return IsKey(name) && IsAlphanumeric(name.front()) ? name : std::string_view();
}

} // namespace
} // namespace ZARO::Platform

struct _tag_ZARO_FW_SERVICE_LIST {
    std::map<std::string, ZARO::Platform::Service, std::less<>> services;
};

using namespace ZARO::Platform;

int ZAROFwServiceEnum(ZARO_FW_SERVICE_LIST** list) {
    return Guard([&] {
        if (list == nullptr) {
            return Fail(EINVAL);
        }
        const std::string folder = paths::ServicesDir() + "/";
        std::vector<std::string> files;
        if (const int error = ListFolder(folder, files)) {
            return Fail(error);
        }
        auto found = std::make_unique<ZARO_FW_SERVICE_LIST>();
        for (const std::string& file : files) {
            const std::string name(ServiceName(file));
            std::string text;
            if (!name.empty() && ReadWhole(folder + file, text) == 0 &&
                !FillService(name, text, found->services[name])) {
                found->services.erase(name);
            }
        }
        if (found->services.empty()) {
            return Fail(ENOENT);
        }
        *list = found.release();
        return static_cast<int>((*list)->services.size());
    });
}

const ZARO_FW_SERVICE* ZAROFWServiceFind(const ZARO_FW_SERVICE_LIST* list, const char* name) {
    if (list == nullptr || name == nullptr) {
        Fail(EINVAL);
        return nullptr;
    }
    const auto found = list->services.find(std::string_view(name));
    if (found == list->services.end()) {
        Fail(ENOENT);
        return nullptr;
    }
    return &found->second.record;
}

void ZAROFwServiceFree(ZARO_FW_SERVICE_LIST* list) {
    delete list;
}

const char* TLIBCSzListGet(const TLIB_SZLIST* list, int index) {
    return list != nullptr && index >= 0 && index < list->nItem ? list->rgszItem[index] : nullptr;
}
