/// What the control server tells devices that want to join.
#pragma once

#include <string>

#include <json/value.h>

#include "hub/command.h"
#include "hub/guess_limit.h"
#include "hub/log.h"
#include "hub/origin.h"
#include "hub/store.h"

namespace ZARO::RelayHub {

/// Any thread may call any method. They block for the store.
class Admission {
public:
    explicit Admission(Store& store) : store_(store) {}

    /// Answers "join"; `code` is "" for none. What the device is told is put into `reply`.
    Errno Join(const Identity& identity, const std::string& code, const Origin& origin,
               Json::Value& reply);
    /// Answers "register" of an unknown device, which becomes pending by that.
    Errno Register(const Identity& identity, const Origin& origin, Json::Value& reply);

private:
    /// Admits the device, or finds out why not. `wait` is set when the device is to ask again after
    /// that many seconds for another reason than the standing.
    StoreResult Decide(const Identity& identity, const std::string& code, const Origin& origin,
                       Standing& standing, int& wait);
    /// Looks at the code unless too many were wrong; then `wait` is set.
    StoreResult TryCode(const Applicant& applicant, const std::string& code, Standing& standing,
                        int& wait);
    void LogOutcome(const Identity& identity, const Origin& origin, Standing standing);

    Store& store_;
    GuessLimit guesses_;
    LogQuota joined_{Level::Info, 100};
    LogQuota refused_;
};

} // namespace ZARO::RelayHub
