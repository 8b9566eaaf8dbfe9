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
    /// No alias, default server, 7200 s. Seeds random() with the time.
    AliasConf();

    /// "alias" is always taken, and cleared when it is missing or no string; "url" unless empty;
    /// "poll_seconds" when above 0. True.
    bool Overwrite(const Json::Value& v) override;

    /// False, logged, without a URL or with 0 seconds. No alias is valid: the feature is off.
    bool IsValid() const override;

    /// "alias" always; "url" and "poll_seconds" always, or with `compact` only where they differ
    /// from the defaults. True.
    bool Write(Json::Value& out, bool compact) const override;

    virtual ~AliasConf();

    /// Whether the settings changed and nobody has acted on it yet.
    bool IsChanged() const;
    void CommitChange();
    void MarkChanged();

    bool IsAliasEnabled() const;

    /// True. Does not mark a change.
    bool SetAliasName(const std::string& name);
    std::string GetAliasName() const;

    /// Base URL: scheme and host, no trailing slash.
    std::string GetUrl() const;

    /// Seconds to wait before the next round: at random from the interval to twice the interval
    /// less one, so that many devices do not call in step. Ask a valid record only.
    int GetPollingTime() const;

private:
    bool changed;
    std::int32_t poll_seconds;
    std::string alias_name;
    std::string url;
};

/// Last known outcome for one alias, kept in a small file that other programs read.
class ZARORELAYD_API AliasStatus {
public:
    /// Loads the file.
    AliasStatus();
    virtual ~AliasStatus();

    /// Reads the file again; a missing or broken one leaves no status. True in every case.
    bool Reload();

    /// False, logged, unless alias and status word are there and not empty.
    bool IsValid() const;

    /// Replaces the file. False for an invalid status or a failed write.
    bool DumpToFile();

    /// Sets alias, status word and additional text; with `dump` also the file, whose result is
    /// then given.
    bool SetStatus(const std::string& aliasName, const std::string& status,
                   const std::string& extra, bool dump);

    /// Status word and additional text of `aliasName`. False, outputs untouched, when the status
    /// is about another alias.
    bool GetStatus(const std::string& aliasName, std::string& status, std::string& extra) const;

private:
    Json::Value status_;
};

} // namespace ZARO::Relay
