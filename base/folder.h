/// The entries of a folder.
#pragma once

#include <filesystem>
#include <string>
#include <system_error>

namespace ZARO {

/// Calls `see` with the path of each entry, in no particular order. What comes and goes meanwhile
/// may be among them or not. Returns what ended it early; no error when all were seen. Throws what
/// `see` throws and bad_alloc, and nothing else.
template <class See> std::error_code ForEachEntry(const std::string& folder, See see) {
    std::error_code error;
    std::filesystem::directory_iterator entry(folder, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        see(entry->path());
    }
    return error;
}

} // namespace ZARO
