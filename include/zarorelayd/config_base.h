/// What every configuration record can do.
#pragma once

#include <json/value.h>

#include <iosfwd>

#include <zarorelayd/export.h>

namespace ZARO::Relay {

/// The forms that a record is written in, for the flag of Config::Write. A record whose flag means
/// something else names its own.
constexpr bool kFileForm = false; ///< what the configuration file keeps
constexpr bool kFullForm = true;  ///< every field

/// Base of every record that is filled from JSON, checked and written back. It has no virtual
/// destructor: a record is deleted only through its own type.
class ZARORELAYD_API Config {
public:
    /// Takes every known key from `v`. A key that is missing or of the wrong type leaves its field
    /// as it was, unless the record says otherwise. What is not an object has no keys.
    virtual bool Overwrite(const Json::Value& v) = 0;
    /// Whether the record can be used. Changes nothing.
    virtual bool IsValid() const = 0;
    /// Sets this record's keys in `v` and leaves other members alone; what is not an object becomes
    /// one. `full` false: only what the configuration file keeps; true: every field. True.
    virtual bool Write(Json::Value& v, bool full) const = 0;
};

/// Inserts the record's full form as one line of JSON with a newline at its end. For a Tunnel that
/// includes the password.
ZARORELAYD_API std::ostream& operator<<(std::ostream& out, const Config& config);

} // namespace ZARO::Relay
