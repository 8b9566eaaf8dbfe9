/// What every configuration record can do.
#pragma once

#include <json/value.h>

#include <iosfwd>

#include <zarorelayd/export.h>

namespace ZARO::Relay {

/// Base of every record that is filled from JSON, checked and written back. It has no virtual
/// destructor: a record is deleted only through its own type.
class ZARORELAYD_API Config {
public:
    /// Takes every known key from `v`; missing keys and wrong types leave the field as it was.
    virtual bool Overwrite(const Json::Value& v) = 0;
    virtual bool IsValid() const = 0;
    /// Sets this record's keys in `v`, leaving other members alone. `full` false: only what the
    /// configuration file keeps; true: every field.
    virtual bool Write(Json::Value& v, bool full) const = 0;
};

/// Inserts the record's full form as one line of JSON with a newline at its end.
ZARORELAYD_API std::ostream& operator<<(std::ostream& out, const Config& config);

} // namespace ZARO::Relay
