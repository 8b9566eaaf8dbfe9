/// A JSON file, read with what RelaydConf::ReadJsonFile does not tell.
#pragma once

#include <json/value.h>

#include <string>

#include "base/read_file.h"

namespace ZARO::Relay {

/// RelaydConf::ReadJsonFile, true in every case as well. Not `readable`, and logged: the file is
/// there and what it holds is not known, so nobody may replace it.
bool ReadJsonFile(const std::string& path, Json::Value& out, bool& readable,
                  Trust trust = Trust::Anybodys);

} // namespace ZARO::Relay
