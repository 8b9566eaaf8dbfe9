/// A file as it was found, to be put back byte by byte.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <string>

namespace ZARO::Relay::ctl {

struct KeptFile {
    bool there = false;
    std::string text;
    mode_t mode = 0;
    uid_t owner = 0;
    gid_t group = 0;

    /// Reads a file of at most 1 MiB. False, with errno, when it is there but can't be read.
    bool Take(const std::string& path);

    /// Makes the file what it was; one that was not there is removed. Does not touch a file that is
    /// as it was. False, with errno, on failure. Blocks for the disk.
    bool PutBack(const std::string& path) const;

    Json::Value Write() const;
    /// False when the value is no kept file.
    bool Read(const Json::Value& value);
};

} // namespace ZARO::Relay::ctl
