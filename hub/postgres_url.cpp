#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>

#include "hub/postgres.h"

namespace ZARO::RelayHub {

namespace {

struct OptionsCloser {
    void operator()(PQconninfoOption* options) const { PQconninfoFree(options); }
};
using UrlOptions = std::unique_ptr<PQconninfoOption, OptionsCloser>;

constexpr const char* kSchemes[] = {"postgresql://", "postgres://"};

/// The length of the scheme that `target` begins with, 0 for none.
std::size_t SchemeLength(const std::string& target) {
    for (const char* scheme : kSchemes) {
        if (target.rfind(scheme, 0) == 0) {
            return strlen(scheme);
        }
    }
    return 0;
}

/// Whether a password with such a character could be taken for a host or a database name, which
/// messages show.
bool IsAmbiguous(const std::string& rest) {
    const auto at = rest.find('@');
    return at != std::string::npos &&
           (rest.find('@', at + 1) != std::string::npos || rest.find('/') < at);
}

bool IsPortList(const char* text) {
    return std::all_of(text, text + strlen(text), [](char c) {
        return c == ',' || std::isdigit(static_cast<unsigned char>(c)) != 0;
    });
}

} // namespace

bool IsPostgresUrl(const std::string& target) {
    return SchemeLength(target) != 0;
}

std::string FaultOfUrl(const std::string& url) {
    if (!IsPostgresUrl(url)) {
        return "expected postgresql://USER@HOST/NAME";
    }
    if (IsAmbiguous(url.substr(SchemeLength(url)))) {
        return "write @ as %40 and / as %2F within a user, password or name of this URL";
    }
    char* message = nullptr; // it may show any part of the URL
    const UrlOptions options(PQconninfoParse(url.c_str(), &message));
    PQfreemem(message);
    if (options == nullptr) {
        return "this URL can't be parsed";
    }
    for (const PQconninfoOption* option = options.get(); option->keyword != nullptr; ++option) {
        if (strcmp(option->keyword, "port") == 0 && option->val != nullptr &&
            !IsPortList(option->val)) {
            return "the port in this URL is not a number";
        }
    }
    return "";
}

} // namespace ZARO::RelayHub
