#include "hub/admin.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "base/invitation_code.h"
#include "base/json.h"
#include "base/names.h"
#include "base/text.h"
#include "hub/admin_reply.h"
#include "hub/backup.h"
#include "hub/log.h"
#include "hub/names.h"
#include "hub/secret.h"

namespace ZARO::RelayHub {

namespace {

constexpr std::int64_t kMostUses = kMaxDevices;
constexpr std::size_t kShownAddresses = 5;
constexpr std::size_t kLongestName = 63;                        // also of an address
constexpr std::int64_t kLongestInvitation = 365 * 24 * 60 * 60; // seconds

std::string Quoted(const std::string& text) {
    return "\"" + Printable(text) + "\"";
}

/// "1 tunnel", "3 tunnels"
std::string Count(std::int64_t number, const std::string& what) {
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

/// Ends the making of a copy, however it went.
struct CopyTurn {
    explicit CopyTurn(std::atomic<bool>& flag) : busy(flag) {}
    CopyTurn(const CopyTurn&) = delete;
    CopyTurn& operator=(const CopyTurn&) = delete;
    ~CopyTurn() { busy = false; }
    std::atomic<bool>& busy;
};

/// Takes "alias:home" apart; a text without a colon may be anything.
std::pair<std::string, std::string> KindAndName(const std::string& text) {
    const std::size_t colon = text.find(':');
    return colon == std::string::npos ? std::pair(std::string(), text)
                                      : std::pair(text.substr(0, colon), text.substr(colon + 1));
}

} // namespace

Admin::Handler Admin::HandlerOf(const std::string& command) {
    static const std::map<std::string, Handler> kHandlers = {
        {"status", &Admin::Status}, {"devices", &Admin::Devices}, {"device", &Admin::Device},
        {"relays", &Admin::Relays}, {"invite", &Admin::Invite},   {"admit", &Admin::Admit},
        {"ban", &Admin::Ban},       {"forget", &Admin::Forget},   {"drain", &Admin::Drain},
        {"backup", &Admin::BackUp}};
    const auto found = kHandlers.find(command);
    return found == kHandlers.end() ? nullptr : found->second;
}

Json::Value Admin::Answer(const Json::Value& request) {
    const std::string command = json::TextOf(request, "command");
    const Handler handler = HandlerOf(command);
    if (handler == nullptr) {
        return AdminFailure(AdminCode::NotDone, command.empty()
                                                    ? "expected an object with a \"command\""
                                                    : "unknown command " + Quoted(command));
    }
    try {
        Json::Value reply = (this->*handler)(request);
        if (reply.isNull()) {
            return AdminFailure(AdminCode::NotDone, "the database failed; the hub's log says why");
        }
        return reply;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& fault) { // a system call's
        return AdminFailure(AdminCode::NotDone, std::string("the hub failed: ") + fault.what());
    }
}

std::string Admin::AnswerLine(const std::string& request) {
    Json::Value document;
    (void)json::Parse(request, document, json::Grammar::Strict); // null for anything else
    return json::Compact(Answer(document));
}

bool Admin::Find(const std::string& text, std::string& serial, Json::Value& reply) {
    const auto [kind, name] = KindAndName(text);
    if ((!kind.empty() && kind != "serial" && kind != "id" && kind != "alias") ||
        !IsMadeOf(name, kLongestName, "-_.")) {
        reply =
            AdminFailure(AdminCode::NotDone, Quoted(text) + " is no serial, server id or alias");
        return false;
    }
    std::vector<std::string> serials;
    switch (store_.fleet.Find(name, kind, serials)) {
    case StoreResult::Done:
        break;
    case StoreResult::NotFound:
        reply = AdminFailure(AdminCode::No, "no device is known as " + Quoted(text) +
                                                "; see: zarorelay-hubctl devices");
        return false;
    default:
        return false;
    }
    if (serials.size() > 1) {
        reply = AdminFailure(AdminCode::NotDone, Quoted(text) +
                                                     " means several devices; say serial:" + name +
                                                     ", id:" + name + " or alias:" + name);
        return false;
    }
    serial = serials.front();
    return true;
}

Json::Value Admin::Invite(const Json::Value& request) {
    const std::int64_t uses = AdminNumber(request, "uses").value_or(1);
    NewInvitation invitation;
    const std::int64_t seconds = AdminNumber(request, "seconds").value_or(invitation.seconds);
    if (uses < 1 || uses > kMostUses || seconds < 1 || seconds > kLongestInvitation) {
        return AdminFailure(AdminCode::NotDone, "expected \"uses\" from 1 to 10000 and \"seconds\""
                                                " of a year at most");
    }
    const std::string code =
        CompleteInvitation(RandomText(kInvitationCharacters, kInvitationDigits));
    invitation.hash = Sha256(code);
    invitation.uses = static_cast<int>(uses);
    invitation.seconds = seconds;
    if (store_.admission.Invite(invitation) != StoreResult::Done) {
        return Json::Value();
    }
    Log(Level::Info, "admin", "made an invitation: uses %d, good for %lld s", invitation.uses,
        static_cast<long long>(seconds));
    Json::Value reply = AdminSuccess();
    reply["code"] = code;
    reply["url"] = Url();
    return reply;
}

Json::Value Admin::Admit(const Json::Value& request) {
    const std::string serial = json::TextOf(request, "serial");
    const std::string from = json::TextOf(request, "from");
    if (!IsSerial(serial)) {
        return AdminFailure(AdminCode::NotDone, Quoted(serial) + " is no serial");
    }
    if (!from.empty() && !IsMadeOf(from, kLongestName, ".:%-_")) {
        return AdminFailure(AdminCode::NotDone, Quoted(from) + " is no address");
    }
    AdmitResult result = AdmitResult::Admitted;
    switch (store_.admission.Admit(serial, from, result)) {
    case StoreResult::Done:
        return result == AdmitResult::Ambiguous ? Ambiguous(serial, from)
                                                : Admitted(serial, result);
    case StoreResult::NotFound:
        return AdminFailure(AdminCode::No,
                            "no device waits under the serial " + serial +
                                (from.empty() ? "" : " at the address " + Quoted(from)) +
                                "; see: zarorelay-hubctl devices --state pending");
    case StoreResult::Taken:
        return AdminFailure(AdminCode::NotDone,
                            "another device has the server id of " + serial +
                                "; forget that one first: zarorelay-hubctl forget id:SERVER-ID");
    case StoreResult::Full:
        return AdminFailure(AdminCode::NotDone, "the hub has " + std::to_string(kMaxDevices) +
                                                    " devices already; forget one first");
    default:
        return Json::Value();
    }
}

Json::Value Admin::Admitted(const std::string& serial, AdmitResult result) {
    switch (result) {
    case AdmitResult::Known:
        return AdminDone(serial + " was admitted before");
    case AdmitResult::Unbanned:
        Log(Level::Info, "admin", "lifted the ban of %s", serial.c_str());
        return AdminDone(serial + " is banned no longer; when it asks, it waits to be admitted");
    default:
        Log(Level::Info, "admin", "admitted %s", serial.c_str());
        return AdminDone(serial + " is admitted");
    }
}

Json::Value Admin::Ambiguous(const std::string& serial, const std::string& from) {
    std::vector<PendingDevice> devices;
    if (store_.admission.Pending(devices) != StoreResult::Done) {
        return Json::Value();
    }
    std::set<std::string> addresses;
    for (const PendingDevice& device : devices) {
        if (device.serial == serial) {
            addresses.insert(device.address);
        }
    }
    if (!from.empty() || addresses.size() < 2) {
        return AdminFailure(AdminCode::NotDone, "several devices ask as " + serial +
                                                    " from the same address; let the right one join"
                                                    " with a code: zarorelay-hubctl invite");
    }
    if (addresses.size() > kShownAddresses) { // a line has room for a few
        return AdminFailure(AdminCode::NotDone, "several devices ask as " + serial +
                                                    "; choose one with --from ADDRESS; see:"
                                                    " zarorelay-hubctl device serial:" +
                                                    serial);
    }
    std::string list;
    for (const std::string& address : addresses) {
        list += (list.empty() ? "" : ", ") + address;
    }
    return AdminFailure(AdminCode::NotDone, "several devices ask as " + serial +
                                                "; choose one with --from ADDRESS: " + list);
}

Json::Value Admin::Ban(const Json::Value& request) {
    const std::string device = json::TextOf(request, "device");
    const auto [kind, name] = KindAndName(device);
    std::string serial;
    Json::Value reply;
    if (kind == "serial" && IsSerial(name)) {
        serial = name; // also one that has never asked
    } else if (!Find(device, serial, reply)) {
        return reply;
    }
    Changes touched;
    if (store_.admission.Ban(serial, touched) != StoreResult::Done) {
        return Json::Value();
    }
    changed_(touched);
    Log(Level::Info, "admin", "banned %s", serial.c_str());
    return AdminDone(serial + " is banned; " +
                     Count(static_cast<std::int64_t>(touched.tunnels.size()), "tunnel") + " ended");
}

Json::Value Admin::Forget(const Json::Value& request) {
    std::string serial;
    Json::Value reply;
    if (!Find(json::TextOf(request, "device"), serial, reply)) {
        return reply;
    }
    Changes touched;
    switch (store_.admission.Forget(serial, touched)) {
    case StoreResult::Done:
        changed_(touched);
        Log(Level::Info, "admin", "forgot %s", serial.c_str());
        return AdminDone(serial + " is forgotten; " +
                         Count(static_cast<std::int64_t>(touched.tunnels.size()), "tunnel") +
                         " ended");
    case StoreResult::NotFound: // somebody else was quicker
        return AdminFailure(AdminCode::No, "no device is known as " + serial);
    default:
        return Json::Value();
    }
}

Json::Value Admin::Drain(const Json::Value& request) {
    const std::string relay = json::TextOf(request, "relay");
    if (!IsMadeOf(relay, kLongestName, "-_")) { // nothing else can be looked up either
        return AdminFailure(AdminCode::No, Quoted(relay) + " is no relay's name");
    }
    Drained drained;
    switch (store_.relays.Drain(relay, drained)) {
    case StoreResult::Done:
        Log(Level::Info, "admin", "drains relay %s", Printable(relay).c_str());
        return AdminDone(relay + " hands over " + Count(drained.tunnels, "tunnel") + " to " +
                         Count(drained.others, "other relay") +
                         ", and gets no new ones until it is started again");
    case StoreResult::NotFound:
        return AdminFailure(AdminCode::No, "no relay has the name " + Quoted(relay) +
                                               "; see: zarorelay-hubctl relays");
    case StoreResult::Refused:
        return AdminFailure(AdminCode::NotDone, relay + " can't be drained: no other relay is up"
                                                        " to take its tunnels");
    default:
        return Json::Value();
    }
}

Json::Value Admin::BackUp(const Json::Value& request) {
    const std::string file = json::TextOf(request, "file");
    if (!options_.database.empty()) {
        return AdminFailure(AdminCode::NotDone,
                            "only a SQLite database is copied; use pg_dump for this one");
    }
    if (file.empty() || file.front() != '/' || file.find('\0') != std::string::npos) {
        return AdminFailure(AdminCode::NotDone, "expected the whole path of a new \"file\"");
    }
    if (copies_.exchange(true)) {
        return AdminFailure(AdminCode::Busy, "another copy is being made; retry when it is done");
    }
    const CopyTurn turn(copies_);
    std::string error;
    return RelayHub::BackUp(options_.data, file, error)
               ? AdminDone("copied the database to " + file)
               : AdminFailure(AdminCode::NotDone, error + "; the hub writes it as its own user");
}

std::string Admin::Url() const {
    const std::string& host = !options_.hosts.empty() ? options_.hosts.front() : options_.relayHost;
    return host.empty() || !options_.roles.control || options_.httpsPort <= 0
               ? ""
               : "https://" + ForUrl(host) + ":" + std::to_string(options_.httpsPort);
}

} // namespace ZARO::RelayHub
