/// What a request's easy handle points to.
#pragma once

#include <curl/curl.h>

#include <string>

#include <zarorelayd/request.h>

namespace ZARO::Relay {

/// What a handle points to. Lives as long as the handle.
struct Request::Buffers {
    std::string data;
    std::string response;
    char error[CURL_ERROR_SIZE] = {};
};

} // namespace ZARO::Relay
