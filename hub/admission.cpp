#include "hub/admission.h"

#include "hub/secret.h"

namespace ZARO::RelayHub {

namespace {

constexpr int kLongWait = 60; ///< seconds until there may be room again

struct Answer {
    Errno error;
    const char* state;
    const char* reason;
};

Answer AnswerFor(Standing standing) {
    switch (standing) {
    case Standing::Admitted:
        return {Errno::Good, "admitted", ""};
    case Standing::Unknown:
    case Standing::Crowded:
        return {Errno::Limit, "busy", ""};
    case Standing::Pending:
        return {Errno::Auth, "pending", ""};
    case Standing::OtherToken:
        return {Errno::Auth, "refused", "token"};
    case Standing::OtherId:
        return {Errno::Auth, "refused", "server_id"};
    case Standing::Banned:
        return {Errno::Auth, "refused", "banned"};
    case Standing::CodeUnknown:
        return {Errno::Auth, "refused", "code_unknown"};
    case Standing::CodeExpired:
        return {Errno::Auth, "refused", "code_expired"};
    case Standing::CodeUsed:
        return {Errno::Auth, "refused", "code_used"};
    }
    return {Errno::Unknown, "busy", ""};
}

Applicant ApplicantOf(const Identity& identity, const Origin& origin) {
    return {identity, origin.peer, origin.network};
}

} // namespace

Errno Admission::Join(const Identity& identity, const std::string& code, const Origin& origin,
                      Json::Value& reply) {
    Standing standing = Standing::Unknown;
    int wait = 0;
    const StoreResult result = Decide(identity, code, origin, standing, wait);
    if (result == StoreResult::Fault) {
        return Errno::Unknown;
    }
    if (result == StoreResult::Full) { // of devices
        standing = Standing::Crowded;
    }
    if (standing == Standing::Crowded) {
        wait = kLongWait;
    } else if (standing == Standing::Pending) {
        wait = store_.admission.RetryAfter();
    }
    const Answer answer = AnswerFor(standing);
    reply["state"] = answer.state;
    if (*answer.reason != '\0') {
        reply["reason"] = answer.reason;
    }
    if (wait > 0) {
        reply["retry_after"] = wait;
    }
    LogOutcome(identity, origin, standing);
    return answer.error;
}

StoreResult Admission::Decide(const Identity& identity, const std::string& code,
                              const Origin& origin, Standing& standing, int& wait) {
    // Who is known needs no code, so that a reply that was lost costs no second one.
    const StoreResult looked = store_.admission.Look(identity, standing);
    if (looked != StoreResult::Done || standing != Standing::Unknown) {
        return looked;
    }
    const Applicant applicant = ApplicantOf(identity, origin);
    return code.empty() || store_.devices.AdmitsAll()
               ? store_.admission.Join(applicant, "", standing)
               : TryCode(applicant, code, standing, wait);
}

StoreResult Admission::TryCode(const Applicant& applicant, const std::string& code,
                               Standing& standing, int& wait) {
    // Each attempt is paid in advance, so that many at once get no further than one by one.
    wait = guesses_.Take(applicant.network, GuessLimit::Clock::now());
    if (wait > 0) {
        return StoreResult::Done;
    }
    const StoreResult result = store_.admission.Join(applicant, Sha256(code), standing);
    if (result != StoreResult::Done ||
        (standing != Standing::CodeUnknown && standing != Standing::CodeExpired &&
         standing != Standing::CodeUsed)) {
        guesses_.GiveBack(applicant.network);
    }
    return result;
}

Errno Admission::Register(const Identity& identity, const Origin& origin, Json::Value& reply) {
    Standing standing = Standing::Unknown;
    const StoreResult result = store_.admission.Join(ApplicantOf(identity, origin), "", standing);
    if (result == StoreResult::Fault) {
        return Errno::Unknown;
    }
    if (standing == Standing::Crowded) {
        reply["retry_after"] = kLongWait;
    } else if (standing == Standing::Pending || standing == Standing::Admitted) {
        reply["retry_after"] = store_.admission.RetryAfter();
    }
    LogOutcome(identity, origin, standing);
    return Errno::Auth;
}

void Admission::LogOutcome(const Identity& identity, const Origin& origin, Standing standing) {
    const char* const serial = identity.serial.c_str();
    const char* const peer = origin.peer.c_str();
    const Answer answer = AnswerFor(standing);
    if (standing == Standing::Admitted) {
        joined_.Log("control", "device %s from %s is admitted", serial, peer);
    } else if (standing != Standing::Pending) { // the store logs who is new among those
        refused_.Log("control", "device %s from %s is not admitted: %s%s%s", serial, peer,
                     answer.state, *answer.reason == '\0' ? "" : ", ", answer.reason);
    }
}

} // namespace ZARO::RelayHub
