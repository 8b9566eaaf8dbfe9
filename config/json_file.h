/// RelaydConf::ReadJsonFile for callers who must know whether the file could be read.
#pragma once

#include <json/value.h>

#include <string>

#include "base/read_file.h"

namespace ZARO::Relay {

/// As RelaydConf::ReadJsonFile, and true in every case like it. `readable` becomes false, logged,
/// when the file exists but its content is unknown: then nobody may replace it.
bool ReadJsonFile(const std::string& path, Json::Value& out, bool& readable,
                  Trust trust = Trust::Anybodys);

} // namespace ZARO::Relay
