/// The names of the devices.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "hub/store_access.h"
#include "hub/store_devices.h"

namespace ZARO::RelayHub {

/// A name lasts until it is not kept alive for its time to live. Then it still belongs to its
/// device, which may renew it, until another device takes it. Any thread may call any method. They
/// block for the database only and don't throw.
class AliasStore {
public:
    explicit AliasStore(StoreAccess& access) : access_(access) {}

    // The first two are Refused when the device is banned or gone.

    /// Gives `name` to the device, which gives its former one up. Taken when it is another
    /// device's.
    StoreResult Map(const std::string& name, std::int64_t device, std::chrono::seconds ttl);
    /// Renews a name. NotFound when it is nobody's, Taken when it is another device's.
    StoreResult Keep(const std::string& name, std::int64_t device, std::chrono::seconds ttl);
    /// Frees a name. NotFound when it is not this device's.
    StoreResult Delete(const std::string& name, std::int64_t device);
    /// The device that has the name, else NotFound.
    StoreResult Find(const std::string& name, Device& device);

private:
    StoreAccess& access_;
};

} // namespace ZARO::RelayHub
