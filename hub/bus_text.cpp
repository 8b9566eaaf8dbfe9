#include "hub/bus_text.h"

#include <charconv>
#include <cstdint>
#include <set>
#include <sstream>

namespace ZARO::RelayHub {

namespace {

constexpr std::size_t kMostTexts = 16;

/// Fills one text after the other.
class TextWriter {
public:
    explicit TextWriter(const std::string& origin) : origin_(origin) {}

    /// `kind` is the letter that tells what `word` is.
    void Add(char kind, const std::string& word) {
        if (texts.empty() || texts.back().size() + word.size() + 3 > kLongestText) {
            texts.push_back(origin_);
            kind_ = 0;
        }
        if (kind != kind_) {
            texts.back() += {' ', kind};
            kind_ = kind;
        }
        texts.back() += ' ' + word;
    }

    std::vector<std::string> texts;

private:
    const std::string& origin_;
    char kind_ = 0; ///< of the last word
};

/// Reads a whole word as a key.
std::optional<std::int64_t> ReadKey(const std::string& word) {
    std::int64_t key = 0;
    const char* const end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, key);
    return error == std::errc() && stop == end ? std::optional<std::int64_t>(key) : std::nullopt;
}

/// Adds what one word tells. False when it is malformed.
bool ReadWord(char kind, const std::string& word, Changes& changes) {
    const bool isTunnel = kind == 't';
    const std::size_t colon = isTunnel ? word.find(':') : word.size();
    const std::optional<std::int64_t> key = ReadKey(word.substr(0, colon));
    if (!key || colon == std::string::npos || (kind != 'd' && !isTunnel)) {
        return false;
    }
    if (isTunnel) {
        changes.tunnels.push_back({*key, word.substr(colon + 1)});
    } else {
        changes.devices.push_back(*key);
    }
    return true;
}

} // namespace

std::vector<std::string> WriteChanges(const Changes& changes, const std::string& origin) {
    TextWriter writer(origin);
    for (const std::int64_t device : std::set(changes.devices.begin(), changes.devices.end())) {
        writer.Add('d', std::to_string(device));
    }
    std::set<std::string> tunnels;
    for (const TunnelKey& tunnel : changes.tunnels) {
        tunnels.insert(std::to_string(tunnel.relay) + ":" + tunnel.user);
    }
    for (const std::string& tunnel : tunnels) {
        writer.Add('t', tunnel);
    }
    return writer.texts.size() > kMostTexts ? std::vector<std::string>{WriteMissed(origin)}
                                            : std::move(writer.texts);
}

std::string WriteMissed(const std::string& origin) {
    return origin + " m";
}

bool IsFrom(const std::string& text, const std::string& origin) {
    return text.compare(0, origin.size() + 1, origin + " ") == 0;
}

std::optional<Changes> ReadChanges(const std::string& text) {
    Changes changes;
    std::istringstream words(text);
    std::string word;
    char kind = 0;
    (void)(words >> word); // the origin
    while (words >> word) {
        if (word == "d" || word == "t") {
            kind = word[0];
        } else if (!ReadWord(kind, word, changes)) {
            return std::nullopt;
        }
    }
    return changes;
}

} // namespace ZARO::RelayHub
