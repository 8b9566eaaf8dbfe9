/// The URL of a PostgreSQL database: how it is checked, and how its password stays unseen.
#pragma once

#include <string>
#include <vector>

namespace ZARO::RelayHub {

/// Whether libpq takes the text apart as a postgresql:// or postgres:// URL with sensible ports.
/// Any thread. Connects to nothing.
bool IsDatabaseUrl(const std::string& text);

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
