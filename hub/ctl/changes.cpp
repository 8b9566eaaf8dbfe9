#include "hub/ctl/changes.h"

#include <filesystem>
#include <iostream>
#include <system_error>

#include <json/value.h>

#include "base/invitation_code.h"
#include "base/json.h"
#include "base/terminal.h"
#include "hub/ctl/ask.h"
#include "hub/ctl/report.h"

namespace ZARO::RelayHub::ctl {

namespace {

constexpr std::int64_t kMinute = 60;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;
constexpr std::int64_t kLongest = 365 * kDay;

constexpr std::size_t kLongestLine = 400; // columns

Json::Value RequestOf(const char* command, const char* key, const std::string& value) {
    Json::Value request;
    request["command"] = command;
    request[key] = value;
    return request;
}

/// Asks the hub to do something, and prints its words for what it did.
int Carry(const std::string& data, const Json::Value& request) {
    Json::Value reply;
    const int result = Ask(data, request, reply);
    if (result == kSuccess) {
        std::cout << Clean(json::TextOf(reply, "done"), kLongestLine) << std::endl;
    }
    return result;
}

/// Tells on a terminal what to do with the code; a script gets the code alone.
void Explain(const Json::Value& reply, const std::string& code, int uses, std::int64_t seconds) {
    if (!IsTerminal()) {
        return;
    }
    const std::string url = json::TextOf(reply, "url");
    std::cout << "On the device: zarorelayctl join "
              << Clean(url.empty() ? "https://HOST-OF-THE-HUB:PORT" : url, kLongestLine) << " "
              << code << "   (for " << uses << (uses == 1 ? " device" : " devices") << ", good for "
              << Duration(seconds) << ")" << std::endl;
}

} // namespace

std::optional<std::int64_t> ParseTime(const std::string& text) {
    if (text.size() < 2 || text.size() > 7 ||
        text.find_first_not_of("0123456789") != text.size() - 1) {
        return std::nullopt;
    }
    const char unit = text.back();
    const std::int64_t factor = unit == 'm'   ? kMinute
                                : unit == 'h' ? kHour
                                : unit == 'd' ? kDay
                                              : 0;
    const std::int64_t seconds = std::stol(text) * factor;
    return seconds >= 1 && seconds <= kLongest ? std::optional(seconds) : std::nullopt;
}

int Invite(const std::string& data, int uses, std::int64_t seconds) {
    Json::Value request;
    request["command"] = "invite";
    request["uses"] = uses;
    request["seconds"] = Json::Value::Int64(seconds);
    Json::Value reply;
    const int result = Ask(data, request, reply);
    if (result != kSuccess) {
        return result;
    }
    const std::optional<std::string> code = ReadInvitation(json::TextOf(reply, "code"));
    if (!code) {
        return Fail(kUnusable, "the hub's answer holds no code",
                    "use the zarorelay-hubctl that belongs to the hub");
    }
    std::cout << ShowInvitation(*code) << std::endl;
    Explain(reply, ShowInvitation(*code), uses, seconds);
    return kSuccess;
}

int Admit(const std::string& data, const std::string& serial, const std::string& from) {
    Json::Value request = RequestOf("admit", "serial", serial);
    request["from"] = from;
    return Carry(data, request);
}

int Ban(const std::string& data, const std::string& device) {
    return Carry(data, RequestOf("ban", "device", device));
}

int Forget(const std::string& data, const std::string& device) {
    return Carry(data, RequestOf("forget", "device", device));
}

int Drain(const std::string& data, const std::string& relay) {
    return Carry(data, RequestOf("drain", "relay", relay));
}

int BackUp(const std::string& data, const std::string& file) {
    std::error_code failed;
    const std::filesystem::path whole = std::filesystem::absolute(file, failed);
    return failed ? Fail(kNotDone, "can't tell where " + file + " is: " + failed.message(),
                         "give its whole path")
                  : Carry(data, RequestOf("backup", "file", whole.string()));
}

} // namespace ZARO::RelayHub::ctl
