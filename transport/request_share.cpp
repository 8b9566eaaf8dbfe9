// What all requests of the process have in common: cookies and resolved names.
#define RELAY_LOG_UNIT "request.cpp"
#include <zarorelayd/request.h>

#include <arpa/nameser.h>
#include <netinet/in.h>
#include <resolv.h>

#include <algorithm>
#include <vector>

#include <zarorelayd/daemon.h>

#include "base/log.h"

namespace ZARO::Relay {

CURLSH* Request::_share = nullptr;
std::string Request::_strCookie;
bool Request::blForbidConnReuse = false;

namespace {

/// Shares that were replaced while requests still used them. libcurl frees a share only when the
/// last of its requests is gone, so each is retried later: a daemon that drops its names for years
/// must not grow.
std::vector<CURLSH*>& RetiredShares() {
    static std::vector<CURLSH*> shares;
    return shares;
}

void CleanRetiredShares() {
    auto& shares = RetiredShares();
    shares.erase(
        std::remove_if(shares.begin(), shares.end(),
                       [](CURLSH* share) { return curl_share_cleanup(share) == CURLSHE_OK; }),
        shares.end());
}

bool ShareData(CURLSH* share, curl_lock_data data, const char* name) {
    if (curl_share_setopt(share, CURLSHOPT_SHARE, data) == CURLSHE_OK) {
        return true;
    }
    RELAY_LOG(log::Error, "set %s failed", name);
    return false;
}

} // namespace

CURLSH* Request::GetCurlShare(bool reset) {
    if (reset) {
        CleanRetiredShares();
        const CURLSHcode result = curl_share_cleanup(_share);
        if (result != CURLSHE_OK) {
            RELAY_LOG(log::Error, "curl_share_cleanup failed. [%s]", curl_share_strerror(result));
            if (_share != nullptr) {
                RetiredShares().push_back(_share);
            }
        }
        _share = nullptr;
        blForbidConnReuse = true;
    }
    if (_share != nullptr) {
        return _share;
    }
    _share = curl_share_init();
    if (_share == nullptr) {
        RELAY_LOG(log::Error, "curl_share_init failed");
        return nullptr;
    }
    if (!ShareData(_share, CURL_LOCK_DATA_COOKIE, "CURL_LOCK_DATA_COOKIE") ||
        !ShareData(_share, CURL_LOCK_DATA_DNS, "CURL_LOCK_DATA_DNS")) {
        curl_share_cleanup(_share);
        _share = nullptr;
    }
    return _share;
}

bool Request::CleanDnsCache() {
    (void)res_init(); // without a resolver configuration the old one stays in use
    (void)GetCurlShare(true);
    return true;
}

std::string& Request::GetCookie() {
    return _strCookie;
}

bool Request::SetCookie(const std::string& cookie) {
    _strCookie = cookie;
    return true;
}

} // namespace ZARO::Relay
