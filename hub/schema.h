/// The tables of the hub's database.
#pragma once

#include <memory>
#include <string>

#include "hub/database.h"

namespace ZARO::RelayHub {

/// Opens `file` and makes the tables unless they are there. Every tunnel list gets a new revision,
/// as no tunnel is up now. When nothing can be written, as on a full disk, a database that has its
/// tables is opened all the same. Throws DatabaseFault.
std::unique_ptr<Database> OpenWithTables(const std::string& file);

} // namespace ZARO::RelayHub
