/// Alias settings and the last outcome of the alias protocol.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include <zarorelayd/config_base.h>
#include <zarorelayd/export.h>

namespace ZARO::Relay {

/// The user-chosen name of the device, the server that keeps it, and how often to call there.
class ZARORELAYD_API AliasConf : public Config {
public:
    /// No alias, the default server, 7200 s. Seeds random() with the time.
    AliasConf();

    /// Unlike in other records, an "alias" that is missing or no string clears the alias. "url" is
    /// taken unless empty, "poll_seconds" if above 0. True.
    bool Overwrite(const Json::Value& v) override;

    /// False, logged, without a URL or with 0 seconds. An empty alias is valid: it turns the
    /// feature off.
    bool IsValid() const override;

    /// The forms of Write.
    static constexpr bool kEverySetting = false;
    static constexpr bool kCompact = true;

    /// "alias" always; "url" and "poll_seconds" always, or with `compact` only where they differ
    /// from the defaults. True.
    bool Write(Json::Value& out, bool compact) const override;

    virtual ~AliasConf();

    /// Whether the settings changed and nobody has acted on it yet. False at first.
    bool IsChanged() const;
    /// For whoever has acted on a change: clears the flag.
    void CommitChange();
    /// For whoever finds a change, as RelaydConf::Reload does: raises the flag until CommitChange.
    void MarkChanged();

    /// Whether alias, URL and interval are the same.
    bool HasSameSettings(const AliasConf& other) const {
        return alias_name == other.alias_name && url == other.url &&
               poll_seconds == other.poll_seconds;
    }

    /// Whether an alias is set.
    bool IsAliasEnabled() const;

    /// Sets the alias; an empty one turns the feature off. Does not mark a change. True.
    bool SetAliasName(const std::string& name);
    /// The alias; empty: none.
    std::string GetAliasName() const;

    /// The alias server's URL as configured: scheme and host, without a trailing slash.
    std::string GetUrl() const;

    /// Seconds to wait before the next round: random, from the interval to one second less than
    /// twice the interval, so that devices do not all call at once. For valid records.
    int GetPollingTime() const;

private:
    bool changed;
    std::int32_t poll_seconds; ///< the interval
    std::string alias_name;
    std::string url;
};

/// Last known outcome for one alias, kept in a small file that other programs read. For one thread;
/// blocks only for file access.
class ZARORELAYD_API AliasStatus {
public:
    /// Loads the file, as Reload does.
    AliasStatus();
    virtual ~AliasStatus();

    /// Reads the file again. A link counts as missing; a missing, unreadable or broken file leaves
    /// no status. A broken one is moved aside. True in every case.
    bool Reload();

    /// False, logged, unless alias and status word are texts and not empty.
    bool IsValid() const;

    /// Replaces the file, with the results of RelaydConf::WriteJsonFile. False, logged, also for an
    /// invalid status.
    bool DumpToFile();

    /// Sets alias, status word and additional text. With `dump` also replaces the file and returns
    /// DumpToFile's result; else true.
    bool SetStatus(const std::string& aliasName, const std::string& status,
                   const std::string& extra, bool dump);

    /// Gives status word and additional text of `aliasName`; one that is missing leaves its output
    /// untouched. False, both untouched, when the status is about another alias.
    bool GetStatus(const std::string& aliasName, std::string& status, std::string& extra) const;

private:
    Json::Value status_;
};

} // namespace ZARO::Relay
