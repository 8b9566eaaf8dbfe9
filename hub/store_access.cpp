#include "hub/store_access.h"

#include "hub/log.h"
#include "hub/schema.h"

namespace ZARO::RelayHub {

void StoreAccess::Open(const std::string& file) {
    database_ = OpenWithTables(file);
}

StoreResult StoreAccess::Failed(const char* what, const std::exception& fault) {
    Log(Level::Error, "store", "%s failed: %s", what, fault.what());
    return StoreResult::Fault;
}

} // namespace ZARO::RelayHub
