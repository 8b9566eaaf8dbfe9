#include "hub/http_form.h"

#include <algorithm>
#include <cstddef>

#include "base/ascii.h"

namespace ZARO::RelayHub {

namespace {

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
