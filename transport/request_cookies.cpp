// The cookies that a request's replies set.
#define RELAY_LOG_UNIT "request.cpp"
#include <zarorelayd/request.h>

#include <algorithm>
#include <list>
#include <map>
#include <memory>
#include <string>

#include <zarorelayd/daemon.h>

#include "base/ascii.h"
#include "base/log.h"
#include "transport/set_option.h"

namespace ZARO::Relay {

namespace {

constexpr std::size_t kHostText = 128; // bytes
/// Per host. libcurl sends 150 at most; without a limit a server could fill the memory.
constexpr std::size_t kMostCookies = 256;

/// The host of a URL as libcurl's cookie lines begin with it.
std::string HostOf(const std::string& url) {
    const std::size_t slash = url.find('/');
    if (slash == std::string::npos || slash + 2 > url.size()) {
        return "";
    }
    std::string host = url.substr(slash + 2, kHostText - 1);
    const std::size_t colon = host.find(':');
    return host.substr(0, colon != std::string::npos ? colon : host.find('/'));
}

using Lines = std::list<std::string>;

/// The host that a line of libcurl's cookie list is for: its first field, in lower case.
std::string CookieHost(const std::string& line) {
    const std::string httpOnly = "#HttpOnly_";
    const std::size_t begin = line.rfind(httpOnly, 0) == 0 ? httpOnly.size() : 0;
    std::string host = line.substr(begin, line.find('\t') - begin);
    std::transform(host.begin(), host.end(), host.begin(),
                   [](char c) { return IsUpper(c) ? static_cast<char>(c + 32) : c; });
    return host[0] == '.' ? host.substr(1) : host;
}

/// Removes the oldest lines of each host that has too many. True if it removed any.
bool DropOldest(Lines& lines) {
    std::map<std::string, std::size_t> counts;
    for (const std::string& line : lines) {
        ++counts[CookieHost(line)];
    }
    const std::size_t before = lines.size();
    lines.remove_if([&](const std::string& line) {
        std::size_t& count = counts[CookieHost(line)];
        return count > kMostCookies && count-- > 0;
    });
    return lines.size() < before;
}

} // namespace

bool Request::SaveCookies() {
    curl_slist* list = nullptr;
    const CURLcode result = curl_easy_getinfo(handle_, CURLINFO_COOKIELIST, &list);
    const std::unique_ptr<curl_slist, void (*)(curl_slist*)> owner(list, curl_slist_free_all);
    if (result != CURLE_OK) {
        RELAY_LOG(log::Error, "curl_easy_getinfo failed: %d", static_cast<int>(result));
        return false;
    }
    Lines all;
    const std::string host = HostOf(url_);
    for (; list != nullptr; list = list->next) {
        all.emplace_back(list->data);
        if (!host.empty() && all.back().rfind(host, 0) == 0) {
            cookies_.push_back(all.back());
        }
    }
    (void)DropOldest(cookies_);
    if (DropOldest(all)) {
        // Refills the store that all requests share: libcurl can't be made to forget every single
        // cookie by its line.
        (void)SET_OPTION(handle_, CURLOPT_COOKIELIST, "ALL");
        for (const std::string& line : all) {
            (void)SET_OPTION(handle_, CURLOPT_COOKIELIST, line.c_str());
        }
    }
    return true;
}

bool Request::GetCookies(std::list<std::string>& out) {
    if (cookies_.empty()) {
        return false;
    }
    out = cookies_;
    return true;
}

} // namespace ZARO::Relay
