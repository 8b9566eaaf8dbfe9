#include "hub/forms.h"

#include <arpa/inet.h>
#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string_view>

namespace ZARO::RelayHub {

namespace {

// <ctype.h> asks the locale; these don't.
bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}
bool IsLower(char c) {
    return c >= 'a' && c <= 'z';
}
bool IsWord(char c) {
    return IsDigit(c) || IsLower(c) || (c >= 'A' && c <= 'Z');
}

/// Whether `text` has 1 to `longest` characters and each is a letter, a digit or one of `others`.
bool IsMadeOf(const std::string& text, std::size_t longest, std::string_view others) {
    return !text.empty() && text.size() <= longest &&
           std::all_of(text.begin(), text.end(), [others](char c) {
               return IsWord(c) || others.find(c) != std::string_view::npos;
           });
}

int HexValue(char c) {
    if (IsDigit(c)) {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

std::string Unescape(const std::string& text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const int high = text[i] == '%' && i + 2 < text.size() ? HexValue(text[i + 1]) : -1;
        const int low = high >= 0 ? HexValue(text[i + 2]) : -1;
        if (low >= 0) {
            plain += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

/// Whether a document has more values than an honest one, several times over. The parser takes a
/// hundred bytes for a value that may be two bytes long.
bool HasManyValues(const std::string& text) {
    constexpr int kMaxValues = 8192; // 256 services take 1300
    int values = 0;
    bool quoted = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (quoted && c == '\\') {
            ++i;
        } else if (c == '"') {
            quoted = !quoted;
        } else if (!quoted && (c == ',' || c == '[' || c == '{')) {
            ++values;
        }
    }
    return values > kMaxValues;
}

/// Calls `use(name, value)` for each "name=value" of a list.
template <typename Use> void ForEachPair(const std::string& list, char separator, Use use) {
    std::size_t from = 0;
    while (from < list.size()) {
        const std::size_t to = std::min(list.find(separator, from), list.size());
        const std::size_t equals = list.find('=', from);
        if (equals < to) {
            use(list.substr(from, equals - from), list.substr(equals + 1, to - equals - 1));
        }
        from = to + 1;
    }
}

} // namespace

bool IsSerial(const std::string& text) {
    return IsMadeOf(text, 35, "-_.");
}

bool IsToken(const std::string& text) {
    return !text.empty() && text.size() <= 32 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

bool IsServiceId(const std::string& text) {
    return IsMadeOf(text, 63, "_-.") && text[0] != '-' && text[0] != '.';
}

bool IsAliasName(const std::string& text) {
    return IsMadeOf(text, 63, "-") &&
           std::none_of(text.begin(), text.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

bool IsShortText(const std::string& text, std::size_t longest) {
    return text.size() <= longest && std::none_of(text.begin(), text.end(), [](char c) {
               return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
           });
}

bool IsAddress(const std::string& text) {
    unsigned char bytes[sizeof(in6_addr)];
    return text.find('\0') == std::string::npos && // what is behind one would go unchecked
           (inet_pton(AF_INET, text.c_str(), bytes) == 1 ||
            inet_pton(AF_INET6, text.c_str(), bytes) == 1);
}

bool IsHost(const std::string& text, bool bracketed) {
    if (bracketed && text.size() > 2 && text.front() == '[' && text.back() == ']') {
        const std::string address = text.substr(1, text.size() - 2);
        return address.find(':') != std::string::npos && IsAddress(address);
    }
    return IsMadeOf(text, 253, "-._") && text[0] != '-' && text[0] != '.';
}

std::optional<std::string> ServerIdOf(const std::string& mac) {
    std::string digits;
    for (std::size_t i = 0; i < mac.size(); ++i) {
        const bool separator = mac.size() == 17 && i % 3 == 2;
        if (separator ? mac[i] != ':' && mac[i] != '-' : HexValue(mac[i]) < 0) {
            return std::nullopt;
        }
        if (!separator) {
            digits += mac[i];
        }
    }
    if (digits.size() != 12) {
        return std::nullopt;
    }
    const auto number = static_cast<unsigned>(strtoul(digits.c_str() + 6, nullptr, 16));
    // Two check bits: the parity of all the bits, and of those at odd places.
    const auto all = static_cast<unsigned>(__builtin_parity(number));
    const auto odd = static_cast<unsigned>(__builtin_parity(number & 0xAAAAAA));
    char id[16];
    (void)snprintf(id, sizeof id, "%09u", number * 4 + odd * 2 + all);
    return id;
}

std::optional<Origin> ParseHost(const std::string& scheme, const std::string& header) {
    Origin origin;
    origin.scheme = scheme;
    origin.port = scheme == "https" ? 443 : 80;
    const std::size_t colon = header.rfind(':');
    const bool hasPort = colon != std::string::npos && header.find(']', colon) == std::string::npos;
    origin.host = header.substr(0, hasPort ? colon : std::string::npos);
    if (hasPort) {
        const std::string port = header.substr(colon + 1);
        if (port.empty() || port.size() > 5 || !std::all_of(port.begin(), port.end(), IsDigit)) {
            return std::nullopt;
        }
        origin.port = atoi(port.c_str());
    }
    if (!IsHost(origin.host, true) || origin.port < 1 || origin.port > 65535) {
        return std::nullopt;
    }
    return origin;
}

bool ParseJson(const std::string& text, Json::Value* value) {
    if (HasManyValues(text)) {
        return false;
    }
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["collectComments"] = false;
    builder["stackLimit"] = 32; // the deepest honest document has 4 levels
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string problem;
    try {
        return reader->parse(text.data(), text.data() + text.size(), value, &problem);
    } catch (const std::exception&) {
        return false; // how the parser reports nesting beyond its limit
    }
}

std::string ToLine(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::map<std::string, std::string> ParseForm(const std::string& body) {
    std::map<std::string, std::string> fields;
    ForEachPair(body, '&', [&fields](const std::string& name, const std::string& value) {
        fields[Unescape(name)] = Unescape(value);
    });
    return fields;
}

std::string CookieValue(const std::string& header, const std::string& name) {
    std::string found;
    ForEachPair(header, ';', [&](const std::string& key, const std::string& value) {
        if (key.substr(std::min(key.find_first_not_of(' '), key.size())) == name) {
            found = value;
        }
    });
    return found;
}

} // namespace ZARO::RelayHub
