/// What the hub knows, in one database.
#pragma once

#include <string>

#include "hub/store_access.h"
#include "hub/store_aliases.h"
#include "hub/store_devices.h"
#include "hub/store_services.h"

namespace ZARO::RelayHub {

/// A change is complete or not made at all. It survives the end of this process as soon as the
/// method returns; after a loss of power the newest changes may be missing, which devices bring
/// back when they register again.
class Store {
    StoreAccess access_; // first, as the parts refer to it

public:
    /// Opens or makes the database file, mode 0600, before any part is used. False with the reason
    /// in `error`.
    bool Open(const std::string& file, PortPool pool, std::string& error);

    DeviceStore devices{access_};
    ServiceStore services{access_};
    AliasStore aliases{access_};
};

} // namespace ZARO::RelayHub
