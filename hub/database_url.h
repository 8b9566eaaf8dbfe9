/// The URL of a PostgreSQL database: how it is checked, and how its password stays unseen.
#pragma once

#include <string>
#include <vector>

namespace ZARO::RelayHub {

/// Whether `target` names a server rather than a file.
bool IsPostgresUrl(const std::string& target);

/// What is wrong with the form of the URL, in words that hold no part of it; "" = nothing. Any
/// thread. Connects to nothing.
std::string FaultOfUrl(const std::string& url);

/// Reads a URL from the first line of a file that only this user or root may change and that is
/// closed to others. A file of root may be readable for its group. False with the reason in
/// `error`, which never shows what the file holds.
bool ReadDatabaseUrl(const std::string& file, std::string& url, std::string& error);

/// Overwrites what follows "://" or "password=" in each argument, so that process lists do not show
/// it. To be called as early as possible, once the arguments were copied.
void HideSecrets(int argc, char** argv);

/// A message about the words of a command line, without what HideSecrets hides in them.
std::string WithoutSecrets(std::string message, const std::vector<std::string>& words);

} // namespace ZARO::RelayHub
