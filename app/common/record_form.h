/// Names for the flag of Config::Write, which means something else for some records.
#pragma once

namespace ZARO::Relay::app {

constexpr bool kFileForm = false; ///< what the configuration file keeps
constexpr bool kFullForm = true;  ///< every field

constexpr bool kWithDefaults = false; ///< AliasConf: every setting, not only what differs
constexpr bool kNoToken = false;      ///< AuthConf: without the credential

} // namespace ZARO::Relay::app
