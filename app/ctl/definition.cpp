#include "app/ctl/definition.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/ascii.h"
#include "base/paths.h"
#include "base/read_file.h"
#include "base/replace_file.h"
#include "base/service_names.h"

namespace ZARO::Relay::ctl {

namespace {

constexpr std::size_t kLongestTitle = 127; // bytes; the platform cuts longer ones
constexpr std::size_t kLongestId = 50;     // characters; leaves room for a port
constexpr const char* kMark =
    "# Made by \"zarorelayctl publish\"; \"zarorelayctl unpublish\" removes this file.\n";

std::string PathOf(const std::string& id) {
    return paths::ServicesDir() + "/" + services::DefinitionOf(id) + ".conf";
}

char ToLower(char c) {
    return IsUpper(c) ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace

bool IsTitle(const std::string& title) {
    return !title.empty() && title.size() <= kLongestTitle &&
           std::all_of(title.begin(), title.end(), [](char c) {
               return static_cast<unsigned char>(c) >= 0x20 && c != 0x7F && c != '"';
           });
}

std::string IdFor(const std::string& title, int port) {
    std::string id;
    for (const char c : title) {
        if (IsAlphanumeric(c)) {
            id += ToLower(c);
        } else if (!id.empty() && id.back() != '-') {
            id += '-';
        }
    }
    id = id.substr(0, kLongestId);
    id.erase(id.find_last_not_of('-') + 1);                           // npos + 1 is 0
    const bool isNumber = std::all_of(id.begin(), id.end(), IsDigit); // commands take it for a port
    return isNumber ? "port-" + std::to_string(port) : id;
}

bool IsTaken(const std::string& id) {
    struct stat info = {};
    return services::DefinitionOf(id) != id || services::IdOf(id) != id ||
           lstat(PathOf(id).c_str(), &info) == 0;
}

bool IsOwnDefinition(const std::string& id) {
    FileText file;
    return ReadFile(PathOf(id), file, Trust::NoLink) == Reading::Done &&
           file.text.rfind(kMark, 0) == 0;
}

bool WriteDefinition(const std::string& id, const std::string& title, int port) {
    if (IsTaken(id) && !IsOwnDefinition(id)) {
        errno = EEXIST;
        return false;
    }
    if (mkdir(paths::ServicesDir().c_str(), 0755) != 0 && errno != EEXIST) {
        return false;
    }
    NewFile file;
    file.mode = 0644;
    file.needsMode = false;
    const std::string text = kMark + (title.empty() ? "" : "title=\"" + title + "\"\n") + "tcp=\"" +
                             std::to_string(port) + "\"\n";
    return ReplaceFile(PathOf(id), text, file) == Replaced::Done;
}

bool RemoveDefinition(const std::string& id) {
    return !IsOwnDefinition(id) || unlink(PathOf(id).c_str()) == 0 || errno == ENOENT;
}

} // namespace ZARO::Relay::ctl
