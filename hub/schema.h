/// The tables of the hub's database, and their versions.
#pragma once

#include <memory>
#include <string>

#include "hub/database.h"

namespace ZARO::RelayHub {

/// Opens the file or connects to the server that `target` names. Makes the tables, or brings those
/// of an older hub up to date, unless another process is doing so at the moment: then it waits for
/// that. A file of the current version is opened even when nothing can be written, as on a full
/// disk. Throws DatabaseFault.
std::unique_ptr<Database> OpenWithTables(const std::string& target);

} // namespace ZARO::RelayHub
