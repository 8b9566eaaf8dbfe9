/// What the operator can ask of a running hub, and have it do.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <utility>

#include <json/value.h>

#include "hub/changes.h"
#include "hub/hub.h"
#include "hub/store.h"

namespace ZARO::RelayHub {

/// Takes one request and gives one reply, both JSON objects, whoever carries them. Serves the whole
/// fleet of its database. Any thread may call any method; they block for the store. `store` and
/// `options` must outlive it.
class Admin {
public:
    /// `changed` is called with what a request changed; it must not throw.
    Admin(Store& store, const HubOptions& options, std::function<void(const Changes&)> changed)
        : store_(store), options_(options), changed_(std::move(changed)) {}

    /// A request has a `command` and its arguments. The reply has `ok`: true with what was asked
    /// for; or false with an `error` of one line for people and a `code`: 1 = there is no such
    /// thing, 2 = not done, 11 = busy. Throws bad_alloc, and nothing else.
    Json::Value Answer(const Json::Value& request);
    /// The same for texts of one line, without its end.
    std::string AnswerLine(const std::string& request);

private:
    using Handler = Json::Value (Admin::*)(const Json::Value& request);

    static Handler HandlerOf(const std::string& command);

    // Each carries out one command. Null = the database failed.

    Json::Value Status(const Json::Value& request);
    Json::Value Devices(const Json::Value& request);
    Json::Value Device(const Json::Value& request);
    Json::Value Relays(const Json::Value& request);

    Json::Value Invite(const Json::Value& request);
    Json::Value Admit(const Json::Value& request);
    Json::Value Ban(const Json::Value& request);
    Json::Value Forget(const Json::Value& request);
    Json::Value Drain(const Json::Value& request);
    Json::Value BackUp(const Json::Value& request);

    /// The serial of the one device that `text` means. Else false, with the `reply`.
    bool Find(const std::string& text, std::string& serial, Json::Value& reply);
    /// The reply when a device was admitted, and when it is not clear which one to admit.
    static Json::Value Admitted(const std::string& serial, AdmitResult result);
    /// `from` = the address that the operator chose already, "" = none.
    Json::Value Ambiguous(const std::string& serial, const std::string& from);
    /// The page of the list of devices in one state, the first of which come after `after`.
    StoreResult Page(const std::string& state, const std::string& after, Json::Value& reply);
    /// The devices that wait under this serial, "" = under any.
    StoreResult Pending(const std::string& serial, Json::Value& rows);
    /// Where devices reach this process, "" = it can't tell.
    std::string Url() const;

    Store& store_;
    const HubOptions& options_;
    const std::function<void(const Changes&)> changed_;
    std::atomic<bool> copies_{false}; ///< the database, at the moment
};

} // namespace ZARO::RelayHub
