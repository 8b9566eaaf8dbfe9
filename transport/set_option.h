/// Sets an option of a libcurl easy handle. True when libcurl takes it; else false, logged. The
/// text has no blank before its "to", and that is kept.
#pragma once

#include <curl/curl.h>

#include <zarorelayd/daemon.h>

#include "base/log.h"

#define SET_OPTION(handle, option, value)                                                          \
    (curl_easy_setopt(handle, option, value) == CURLE_OK ||                                        \
     (RELAY_LOG(log::Error, "set " #option "to curl handle failed"), false))
