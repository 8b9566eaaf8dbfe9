/// The commands that change something.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace ZARO::RelayHub::ctl {

/// Seconds of a time like 30m, 12h or 7d, up to a year. Nothing for another text.
std::optional<std::int64_t> ParseTime(const std::string& text);

// Each asks the hub on the folder `data`, prints what was done and gives the exit code.

/// Prints a code that admits `uses` devices within so many seconds.
int Invite(const std::string& data, int uses, std::int64_t seconds);
/// `from`: the address of the device to admit when several claim the serial; empty = there is one.
int Admit(const std::string& data, const std::string& serial, const std::string& from);
/// `device`: a serial, server id or alias, as for the next.
int Ban(const std::string& data, const std::string& device);
int Forget(const std::string& data, const std::string& device);
int Drain(const std::string& data, const std::string& relay);
/// Has the hub copy its database to a new file.
int BackUp(const std::string& data, const std::string& file);

} // namespace ZARO::RelayHub::ctl
