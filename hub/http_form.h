/// The lists of names and values that come with a request: form bodies and cookies.
#pragma once

#include <map>
#include <string>

namespace ZARO::RelayHub {

/// The fields of a form body. Values come escaped or not at all, so "%41" is "A" but "+" stays "+"
/// and a lone "%" stays too.
std::map<std::string, std::string> ParseForm(const std::string& body);

/// The value of cookie `name` in a Cookie header, or "".
std::string CookieValue(const std::string& header, const std::string& name);

} // namespace ZARO::RelayHub
