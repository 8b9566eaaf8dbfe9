/// The daemon's status, as one document and as a small table.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

namespace ZARO::Relay::ctl {

struct Status {
    int code = 0;         ///< the exit code
    Json::Value document; ///< every documented key is there, with its type, whatever the file holds
};

/// Reads the status file; with an id, of that service alone.
Status ReadStatus(const std::string& serviceId);

/// The document for people, `now` for the ages in it.
std::string RenderStatus(const Json::Value& document, std::int64_t now, bool colour);

/// Whether a state word means that the device can be reached.
bool IsConnected(const std::string& state);

/// What a result code of the daemon means, in words.
std::string ErrorWords(const std::string& error);

struct StatusOptions {
    bool json = false;
    bool watch = false;
    std::string service; ///< empty: all
};

/// Prints it, once or, with `watch`, until a signal ends it. Gives the exit code.
int ShowStatus(const StatusOptions& options);

} // namespace ZARO::Relay::ctl
