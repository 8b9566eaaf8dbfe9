#include "hub/hub.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <optional>
#include <utility>

#include "hub/admin.h"
#include "hub/admin_socket.h"
#include "hub/alias.h"
#include "hub/bus.h"
#include "hub/certificate.h"
#include "hub/control.h"
#include "hub/files.h"
#include "hub/hub_pages.h"
#include "hub/log.h"
#include "hub/loops.h"
#include "hub/relay_role.h"
#include "hub/spread.h"
#include "hub/status_reports.h"
#include "hub/store.h"
#include "hub/upkeep.h"
#include "hub/waiters.h"
#include "hub/web.h"

namespace ZARO::RelayHub {

namespace {

/// Over how long held requests are answered when the process hands everything over.
constexpr auto kHandOver = std::chrono::seconds(5);

std::string DatabaseOf(const HubOptions& options) {
    return options.database.empty() ? options.data + "/hub.db" : options.database;
}

FolderUse UseOf(const Roles& roles) {
    return roles.control && roles.alias && roles.relay ? FolderUse::Alone : FolderUse::Shared;
}

} // namespace

/// In the order in which they build on each other, so that they go in the reverse order.
struct Hub::Parts {
    explicit Parts(const HubOptions& given);

    /// Tells this process's own parts and all other processes.
    void Changed(const Changes& changes);
    /// Another process changed something.
    void Heed(const Changes& changes);
    void HeedAll();
    void Publish(const Changes& changes);
    void RelayLost();
    bool IsUp(const TunnelRecord& tunnel) const;
    bool StartRoles(std::string& error);
    bool StartWeb(std::string& error);
    HubFacts Facts();
    /// Lets the operator in, after all else: who asks meets a whole hub.
    void StartAdmin();

    const HubOptions& options;
    const bool isAlone; ///< no other process uses the database
    UniqueFd lock;
    Store store;
    Loops loops;
    Bus bus;
    Waiters waiters;
    StatusReports reports;
    std::optional<RelayRole> relay;
    std::shared_ptr<Upkeep> upkeep;
    Control control;
    Alias alias;
    Admin admin;
    std::shared_ptr<AdminSocket> adminSocket;
    std::unique_ptr<Web> http;
    std::unique_ptr<Web> https;
    std::atomic<bool> useless{false};
    std::atomic<int> aliasPort{0}; ///< 0 = no alias pages here (yet)
};

Hub::Parts::Parts(const HubOptions& given)
    : options(given), isAlone(given.database.empty() && UseOf(given.roles) == FolderUse::Alone),
      bus(DatabaseOf(given)), waiters(loops, store, given.hold),
      reports(loops, store, waiters,
              [this](const StatusReports::Devices& devices) {
                  Publish({devices, {}});
              }),
      control(store, waiters,
              {[this](const TunnelRecord& tunnel) { return IsUp(tunnel); },
               [this](const Changes& changes) { Changed(changes); }},
              given.relayHost, [this] { return SpreadFor(store.devices.Count()); }),
      alias(
          store, given.aliasTtl, [this](const TunnelRecord& tunnel) { return IsUp(tunnel); },
          given.relayHost),
      admin(store, given, [this](const Changes& changes) { Changed(changes); }) {
    if (!given.admitsAll) {
        store.devices.AdmitListedOnly();
    }
}

bool Hub::Parts::IsUp(const TunnelRecord& tunnel) const {
    return relay ? relay->IsUp(tunnel) : tunnel.up;
}

void Hub::Parts::Changed(const Changes& changes) {
    if (relay) {
        relay->Close(changes.tunnels);
        relay->Heed(changes); // some of them may be new
    }
    for (const std::int64_t device : changes.devices) {
        waiters.ListChanged(device);
    }
    Publish(changes);
}

void Hub::Parts::Publish(const Changes& changes) {
    if (!isAlone) {
        bus.Publish(changes);
    }
}

void Hub::Parts::Heed(const Changes& changes) {
    if (relay) {
        relay->Heed(changes);
    }
    for (const std::int64_t device : changes.devices) {
        waiters.ListChanged(device);
    }
}

void Hub::Parts::HeedAll() {
    if (relay) {
        relay->HeedAll();
    }
    waiters.AllMayHaveChanged();
}

void Hub::Parts::RelayLost() {
    // With nothing left to do, the process ends, so that whoever watches it takes notice.
    if (!options.roles.control && !options.roles.alias) {
        useless = true;
        (void)kill(getpid(), SIGTERM);
    }
}

bool Hub::Parts::StartRoles(std::string& error) {
    store.ports.UseChoice([this](Database& database) { return store.relays.Choose(database); });
    if (options.roles.relay) {
        relay.emplace(
            loops, store, options,
            RelayRole::Actions{[this](const TunnelStatus& status) { reports.Add(status); },
                               [this](const Changes& changes) { Changed(changes); },
                               [this] { RelayLost(); }});
        if (!relay->Start(error)) {
            return false;
        }
    }
    if (options.roles.control) {
        upkeep = std::make_shared<Upkeep>(loops, store,
                                          [this](const Changes& changes) { Changed(changes); });
        upkeep->Start();
    }
    return isAlone ||
           bus.Start({[this](const Changes& changes) { Heed(changes); }, [this] { HeedAll(); }},
                     error);
}

HubFacts Hub::Parts::Facts() {
    const auto sshPort = [this] {
        const int own = relay ? relay->Port() : 0;
        return own != 0 ? own : store.relays.SshPort();
    };
    return {options.admitsAll, [this] { return aliasPort.load(); }, sshPort};
}

bool Hub::Parts::StartWeb(std::string& error) {
    WebPages pages;
    if (options.roles.control) {
        pages.merge(ControlPages(control, waiters));
        pages.merge(FactPages(Facts()));
    }
    if (options.httpPort >= 0) {
        http = std::make_unique<Web>(loops, pages, nullptr);
        if (!http->Start(options.address, options.httpPort, error)) {
            return false;
        }
    }
    if (options.httpsPort < 0) {
        return true;
    }
    if (options.roles.alias) {
        pages.merge(AliasPages(alias));
    }
    std::set<std::string> names(options.hosts.begin(), options.hosts.end());
    names.insert({options.address, options.relayHost});
    SslContext tls = MakeTls(options.data + "/https.pem", ServedNames(names), error);
    if (tls == nullptr) {
        return false;
    }
    https = std::make_unique<Web>(loops, pages, std::move(tls));
    if (!https->Start(options.address, options.httpsPort, error)) {
        return false;
    }
    aliasPort = options.roles.alias ? https->Port() : 0;
    return true;
}

void Hub::Parts::StartAdmin() {
    adminSocket =
        std::make_shared<AdminSocket>(loops, options.data, [this](const std::string& request) {
            return admin.AnswerLine(request);
        });
    adminSocket->Start(); // a hub without it serves its devices all the same
}

Hub::Hub(HubOptions options) : options_(std::move(options)) {
    if (options_.visitorAddress.empty()) {
        options_.visitorAddress = options_.address;
    }
    parts_ = std::make_unique<Parts>(options_);
}

Hub::~Hub() {
    Stop();
}

bool Hub::Start(std::string& error) {
    // A peer that hangs up must not end the process from within a library's write().
    (void)signal(SIGPIPE, SIG_IGN);
    error.clear();
    const bool good = OpenDataFolder(options_.data, UseOf(options_.roles), parts_->lock, error) &&
                      parts_->store.Open(DatabaseOf(options_), error) &&
                      parts_->loops.Start(error) && parts_->StartRoles(error) &&
                      parts_->StartWeb(error);
    if (good) {
        parts_->StartAdmin();
    }
    return good;
}

void Hub::BeginHandOver() {
    for (Web* web : {parts_->http.get(), parts_->https.get()}) {
        if (web != nullptr) {
            web->Close();
        }
    }
    parts_->waiters.Drain(kHandOver);
    if (parts_->relay) {
        parts_->relay->BeginDrain();
    }
}

bool Hub::IsHandedOver() {
    return parts_->waiters.Count() == 0 && (!parts_->relay || parts_->relay->IsDrained());
}

bool Hub::IsUseless() const {
    return parts_->useless;
}

void Hub::Stop() {
    Web* const webs[] = {parts_->http.get(), parts_->https.get()};
    for (Web* web : webs) {
        if (web != nullptr) {
            web->Close();
        }
    }
    if (parts_->adminSocket != nullptr) {
        parts_->adminSocket->Stop();
    }
    parts_->waiters.Stop();
    for (Web* web : webs) {
        if (web != nullptr) {
            web->Stop();
        }
    }
    if (parts_->upkeep != nullptr) {
        parts_->upkeep->Stop();
    }
    if (parts_->relay) {
        parts_->relay->Stop();
    }
    // The bus sends what the last workers did. What it hears until it stops runs no more.
    parts_->loops.Stop();
    parts_->bus.Stop();
}

int Hub::HttpPort() const {
    return parts_->http == nullptr ? 0 : parts_->http->Port();
}

int Hub::HttpsPort() const {
    return parts_->https == nullptr ? 0 : parts_->https->Port();
}

int Hub::RelayPort() const {
    return parts_->relay ? parts_->relay->Port() : 0;
}

} // namespace ZARO::RelayHub
