/// What the hub knows, in one database.
#pragma once

#include <string>

#include "hub/store_access.h"
#include "hub/store_admission.h"
#include "hub/store_aliases.h"
#include "hub/store_devices.h"
#include "hub/store_fleet.h"
#include "hub/store_moves.h"
#include "hub/store_ports.h"
#include "hub/store_relays.h"
#include "hub/store_services.h"

namespace ZARO::RelayHub {

/// A change is complete or not made at all. It survives the end of this process as soon as the
/// method returns; after a loss of power the newest changes may be missing, which devices bring
/// back when they register again.
class Store {
    StoreAccess access_; // first, as the parts refer to it

public:
    /// Opens the database that `target` names, before any part is used: a file, which is made with
    /// mode 0600, or the URL of a PostgreSQL server. False with the reason in `error`, which never
    /// shows a password.
    bool Open(const std::string& target, std::string& error);
    /// The same for a process with the only relay of the database, which has these ports and no
    /// session yet.
    bool Open(const std::string& target, PortPool pool, std::string& error);

    DeviceStore devices{access_};
    AdmissionStore admission{access_, devices};
    PortStore ports{access_};
    ServiceStore services{access_, ports};
    AliasStore aliases{access_};
    RelayStore relays{access_};
    MoveStore moves{access_, ports, relays};
    FleetStore fleet{access_};

private:
    /// The relay of a database that has only one, which is made if it is missing.
    StoreResult FindOnlyRelay(std::int64_t& relay);
};

} // namespace ZARO::RelayHub
