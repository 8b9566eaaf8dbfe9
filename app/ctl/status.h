/// The daemon's status, as JSON and as a table.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

namespace ZARO::Relay::ctl {

struct Status {
    int code = 0;         ///< the exit code
    Json::Value document; ///< has every documented key with its type, whatever the file holds
};

/// Reads the status file. With an id, only that service is in the document.
Status ReadStatus(const std::string& serviceId);

/// The document as a table for people. Ages are counted up to `now`.
std::string RenderStatus(const Json::Value& document, std::int64_t now, bool colour);

/// Whether a state word means that the daemon is connected.
bool IsConnected(const std::string& state);

/// What a result code of the daemon means, in words for people.
std::string ErrorWords(const std::string& error);

/// What helps a device that the server does not admit; names this device's serial.
std::string AdmissionRemedy();

struct StatusOptions {
    bool json = false;
    bool watch = false;
    std::string service; ///< empty for all
};

/// Prints the status once; with `watch`, again and again until a signal. Gives the exit code.
int ShowStatus(const StatusOptions& options);

} // namespace ZARO::Relay::ctl
