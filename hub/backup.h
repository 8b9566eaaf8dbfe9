/// A copy of the database while a hub uses it.
#pragma once

#include <string>

namespace ZARO::RelayHub {

/// Copies hub.db of the data folder, as it is at one moment, to a new file of mode 0600. Nobody
/// sees `file` before it is whole. Blocks until that is done; a hub that runs goes on meanwhile.
/// False with the reason in `error`, and nothing is left.
bool BackUp(const std::string& data, const std::string& file, std::string& error);

} // namespace ZARO::RelayHub
