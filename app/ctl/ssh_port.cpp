#include "app/ctl/ssh_port.h"

#include <strings.h>

#include <algorithm>

namespace ZARO::Relay::ctl {

namespace {

/// Where a line lies in a text.
struct Place {
    std::size_t begin = 0;
    std::size_t size = 0; ///< without the line end
};

std::string KeywordOf(const std::string& line) {
    const std::size_t begin = line.find_first_not_of(" \t");
    return begin == std::string::npos
               ? ""
               : line.substr(begin, line.find_first_of(" \t=\r\"", begin) - begin);
}

bool IsKeyword(const std::string& word, const char* keyword) {
    return strcasecmp(word.c_str(), keyword) == 0;
}

std::optional<Place> FindPort(const std::string& config) {
    for (std::size_t begin = 0; begin < config.size();) {
        const std::size_t end = std::min(config.find('\n', begin), config.size());
        const std::string word = KeywordOf(config.substr(begin, end - begin));
        if (IsKeyword(word, "Port")) {
            return Place{begin, end - begin};
        }
        if (IsKeyword(word, "Host") || IsKeyword(word, "Match")) {
            break;
        }
        begin = end + 1;
    }
    return std::nullopt;
}

} // namespace

std::optional<std::string> PortLine(const std::string& config) {
    const auto place = FindPort(config);
    return place ? std::optional(config.substr(place->begin, place->size)) : std::nullopt;
}

std::string WithPortLine(const std::string& config, const std::optional<std::string>& line) {
    const auto place = FindPort(config);
    if (!place) {
        return line ? *line + "\n" + config : config;
    }
    std::string changed = config;
    return line ? changed.replace(place->begin, place->size, *line)
                : changed.erase(place->begin, place->size + 1); // with its line end, if it has one
}

} // namespace ZARO::Relay::ctl
