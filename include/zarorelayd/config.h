/// The configuration records and the daemon's configuration file.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <list>
#include <string>

#include <zarorelayd/config_alias.h>
#include <zarorelayd/config_base.h>
#include <zarorelayd/export.h>

struct _tag_TLIB_NETIF;

namespace ZARO::Relay {

/// An HTTP(S) endpoint.
class ZARORELAYD_API ServerConf : public Config {
public:
    /// "http", port 80, page "Serv.php"; host and page replaced by what is not null.
    ServerConf(const char* host, const char* page);
    ServerConf(const Json::Value& v);
    ServerConf(const ServerConf&) = default;
    ServerConf& operator=(const ServerConf&) = default;

    /// True in every case.
    bool Overwrite(const Json::Value& v) override;
    /// Whether it has a protocol ("http" or "https" exactly), a port that is not negative, and a
    /// host or an address.
    bool IsValid() const override;
    /// The short form is the host, or the address of a server without one.
    bool Write(Json::Value& v, bool full) const override;
    virtual ~ServerConf();

    /// Host, port and protocol count.
    bool operator==(const ServerConf& other) const;
    bool operator!=(const ServerConf& other) const;

    /// "protocol://host:port/" and `path`, or the page when it is null. Empty for an invalid
    /// record: there is no usable server then.
    std::string GetUrl(const char* path) const;

    std::string protocol;
    std::string host;
    std::string ip; ///< used when there is no host
    std::int32_t port;
    std::string page; ///< without a leading "/"
};

/// A local service that the device publishes.
class ZARORELAYD_API ServiceConf : public Config {
public:
    /// Reads the platform's definition of `id`; an empty record for null.
    ServiceConf(const char* id);
    /// From JSON; with `readConf` the platform's definition is read first, so that the JSON wins.
    ServiceConf(const Json::Value& v, bool readConf);
    ServiceConf(const ServiceConf&) = default;
    ServiceConf& operator=(const ServiceConf&) = default;

    /// True in every case.
    bool Overwrite(const Json::Value& v) override;
    /// Whether it has an id and a known port.
    bool IsValid() const override;
    /// The short form is the id; the full form leaves unknown ports out.
    bool Write(Json::Value& v, bool full) const override;
    virtual ~ServiceConf();

    /// Id and both ports count; the name does not.
    bool operator==(const ServiceConf& other) const;
    bool operator!=(const ServiceConf& other) const;

    /// Fills the record from the platform's firewall and router definitions. The id is set in
    /// every case; false, the rest untouched, when there is no usable definition.
    bool ReadConf(const std::string& id);

    std::string id;
    std::string name;      ///< display name, or "section:key" of a translation
    std::int32_t port;     ///< local TCP port; -1 unknown
    std::int32_t ext_port; ///< port that the router forwards; -1 unknown
};

/// Finds the services with one id, byte for byte.
class ZARORELAYD_API CmprServiceId {
public:
    CmprServiceId(std::string id);
    bool operator()(const ServiceConf& service) const;

private:
    std::string id_;
};

/// An address of the device.
class ZARORELAYD_API InterfaceConf : public Config {
public:
    InterfaceConf();
    InterfaceConf(const _tag_TLIB_NETIF& nic);
    InterfaceConf(const std::string& name, const std::string& ip, const std::string& mask);
    InterfaceConf(const InterfaceConf&) = default;
    InterfaceConf& operator=(const InterfaceConf&) = default;

    /// True in every case.
    bool Overwrite(const Json::Value& v) override;
    /// Whether no field is empty.
    bool IsValid() const override;
    bool Write(Json::Value& out, bool) const override;
    virtual ~InterfaceConf();

    bool operator==(const InterfaceConf& other) const;
    bool operator!=(const InterfaceConf& other) const;

    std::string name;
    std::string ip;
    std::string mask;
};

/// How the device is reachable on its networks.
class ZARORELAYD_API NetworkConf : public Config {
public:
    NetworkConf(bool readNow);
    NetworkConf(const NetworkConf&) = default;
    NetworkConf& operator=(const NetworkConf&) = default;

    /// True in every case. An "interface" array replaces the list; its invalid entries are dropped.
    bool Overwrite(const Json::Value& v) override;
    /// Whether every interface is valid.
    bool IsValid() const override;
    bool Write(Json::Value& out, bool flag) const override;
    virtual ~NetworkConf();

    /// Appends what the platform reports, so it is meant for a fresh record; keeps what it could
    /// get. True in every case.
    bool ReadConf();

    /// Interfaces in their order, gateway and host name count; the mode does not.
    bool operator==(const NetworkConf& other) const;
    bool operator!=(const NetworkConf& other) const;

    std::string ddns;    ///< host name registered with the dynamic DNS provider, or empty
    std::string gateway; ///< address of the default gateway, or empty
    std::list<InterfaceConf> interfaces;
    std::string mode; ///< told by the control server
};

/// What identifies the device towards the servers. The token is a credential.
class ZARORELAYD_API AuthConf : public Config {
public:
    /// Knows the time zone; the rest only after ReadConf.
    AuthConf(bool readNow);
    AuthConf(const AuthConf&) = default;
    AuthConf& operator=(const AuthConf&) = default;

    /// True in every case. Serial and token change only together: a serial without a token gets
    /// one from the platform, a token without a serial is ignored.
    bool Overwrite(const Json::Value& v) override;
    /// Whether serial, MAC and token are there.
    bool IsValid() const override;
    /// The token goes out only when asked for.
    bool Write(Json::Value& out, bool withToken) const override;
    virtual ~AuthConf();

    /// Reads serial, token and MAC from the platform. False, logged and nothing changed, on
    /// failure.
    bool ReadConf();

    /// The device's MAC, six pairs of hex digits joined by colons; of the pair in a cluster. Logged
    /// and usually empty when there is none.
    static std::string GetMacAddress();

    /// The MAC of one interface as 12 hex digits, or empty. Throws bad_alloc when the platform had
    /// no memory to look for it.
    static std::string RelaydGetMacAddressByIf(const char* ifname);

    std::string serial;
    std::string mac;
    std::string token;
    std::string timezone;
};

/// The whole configuration of the relay daemon. One thread; rewriting the file goes through a
/// complete temporary file and a rename, so that readers never see half of it, and of two writers
/// the later one wins.
class ZARORELAYD_API RelaydConf : public Config {
public:
    /// Defaults, then the file if `path` is not null; ask IsValid() for the outcome.
    RelaydConf(const char* path);
    RelaydConf(const RelaydConf&) = default;
    RelaydConf& operator=(const RelaydConf&) = default;

    /// False, nothing changed, unless `v` is an object. A server id that does not belong to this
    /// device is dropped, and the next rewrite of the file notifies the administrators.
    bool Overwrite(const Json::Value& v) override;
    /// False, and the first fault logged, unless servers, alias settings and services are valid.
    bool IsValid() const override;
    bool Write(Json::Value& v, bool full) const override;
    virtual ~RelaydConf();

    /// Reads and checks a file. False, logged, when it is missing, broken or invalid.
    bool ReadConfigFile(const std::string& path);

    /// Rewrites a file with the short form. Log settings and servers stay only where the file has
    /// them; other keys of the file are not carried over. False, logged, for an invalid record or
    /// a failed write.
    bool WriteConfigFile(const std::string& path);
    bool WriteConfigFile();

    /// Takes everything from the default file and the platform anew, but keeps credentials, debug
    /// flag, wait-command server and network mode, which the running daemon got elsewhere. Raises
    /// the alias settings' changed flag when they differ. A missing or broken file means the
    /// defaults, without services, and true; false, nothing changed, only for settings that
    /// IsValid refuses.
    bool Reload();

    /// Adds a service that the platform knows. True also when it is there already; false, logged,
    /// when the platform has no usable definition.
    bool AddServiceById(const std::string& id);
    /// False when there is none.
    bool RemoveServiceById(const std::string& id);
    /// The end of `services` when there is none.
    std::list<ServiceConf>::const_iterator GetServiceById(const std::string& id) const;

    /// Rewrite one key of a file (empty: the file that this record was read from) and keep all
    /// others. False, logged, for an invalid record or a failed write.
    bool WriteServerId(const std::string& path);
    bool WriteAliasName(const std::string& path, const std::string& alias);

    /// The on/off switch in the platform's settings. SetEnableConf does not touch `enable`; false,
    /// logged, when the platform refused.
    bool SetEnableConf(bool on) const;
    bool GetEnableConf() const;

    /// What an alias request needs: alias settings, credentials (read now if they are missing) and
    /// server id. Holds the token.
    void DumpDataForAliasReq(Json::Value& v);

    /// Reads a JSON file; `out` stays null when it is missing or broken. A broken file is moved
    /// aside to ".bad", or deleted. True in every case.
    static bool ReadJsonFile(const std::string& path, Json::Value& out);

    /// Replaces a file with the styled text of `value`, mode 0644; "-" prints it on standard
    /// output. False, the old file in place, when it can't be written. True, logged, when only the
    /// last rename failed: the old file is in place then too.
    static bool WriteJsonFile(const std::string& path, const Json::Value& value);

    /// WriteJsonFile, then the notification that is due when a stored server id was dropped.
    bool WriteJsonFileWithNotification(const std::string& path, const Json::Value& value);

    /// The device's time zone name from the platform's settings, or empty.
    static std::string GetTimeZone();

    /// The default control server for a time zone; null: the device's own.
    static std::string GetServerHost(const char* timeZone);

    bool enable; ///< the switch as it was when the record was built
    std::string serverID;
    ServerConf control;
    ServerConf waitcmd;
    AliasConf alias;
    std::list<ServiceConf> services; ///< ids are unique
    NetworkConf network;
    AuthConf auth;
    std::string log_file;
    std::int32_t log_level;
    bool sync;
    bool debug;
    std::string path;     ///< the file that this record was read from
    bool serverIdCleared; ///< the next rewrite of the file sends a notification

private:
    /// What a rewrite of some keys begins with. False, logged, when there must be none.
    bool ReadForRewrite(const std::string& file, Json::Value& v) const;
};

} // namespace ZARO::Relay
