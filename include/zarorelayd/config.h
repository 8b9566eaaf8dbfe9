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
    /// "http", port 80, no host, page "Serv.php"; then `host` and `page` where they are not null.
    ServerConf(const char* host, const char* page);
    /// The same defaults, then what `v` holds.
    ServerConf(const Json::Value& v);
    ServerConf(const ServerConf&) = default;
    ServerConf& operator=(const ServerConf&) = default;

    /// True in every case.
    bool Overwrite(const Json::Value& v) override;
    /// Whether the protocol is "http" or "https", the port is not negative, and there is a host or
    /// an address.
    bool IsValid() const override;
    /// The short form is the host; without a host, the address too.
    bool Write(Json::Value& v, bool full) const override;
    virtual ~ServerConf();

    /// Compares host, port and protocol.
    bool operator==(const ServerConf& other) const;
    bool operator!=(const ServerConf& other) const;

    /// "protocol://host:port/", then `path`, or the page when `path` is null. Empty for an invalid
    /// record.
    std::string GetUrl(const char* path) const;

    std::string protocol; ///< "http" or "https"
    std::string host;     ///< name or address
    std::string ip;       ///< address, used when there is no host
    std::int32_t port;    ///< TCP port
    std::string page;     ///< without a leading "/"
};

/// A local service that the device publishes.
class ZARORELAYD_API ServiceConf : public Config {
public:
    /// As ReadConf(id), whose failure leaves the ports unknown; an empty record for null.
    ServiceConf(const char* id);
    /// From JSON; with `readConf` the platform's definition is read first, so that the JSON wins.
    ServiceConf(const Json::Value& v, bool readConf);
    ServiceConf(const ServiceConf&) = default;
    ServiceConf& operator=(const ServiceConf&) = default;

    /// True in every case.
    bool Overwrite(const Json::Value& v) override;
    /// Whether there are an id and a known port.
    bool IsValid() const override;
    /// The short form is the id; the full form leaves unknown ports out.
    bool Write(Json::Value& v, bool full) const override;
    virtual ~ServiceConf();

    /// Compares id and both ports, not the name.
    bool operator==(const ServiceConf& other) const;
    bool operator!=(const ServiceConf& other) const;

    /// Fills the record from the platform's firewall and router definitions. Sets the id in every
    /// case. False, the rest untouched, when there is no definition or it opens no port. `port`
    /// stays as it was unless the definition has exactly one. Aborts on a definition without a
    /// name, which no platform may give.
    bool ReadConf(const std::string& id);

    std::string id;        ///< names the platform's definition
    std::string name;      ///< display name, or "section:key" of a translation
    std::int32_t port;     ///< local TCP port; negative: unknown
    std::int32_t ext_port; ///< port that the router forwards; negative: unknown
};

/// A predicate for standard algorithms: whether a service has this id, byte for byte.
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
    /// Empty, and so not valid.
    InterfaceConf();
    /// Takes name, address and mask from a record of the platform.
    InterfaceConf(const _tag_TLIB_NETIF& nic);
    InterfaceConf(const std::string& name, const std::string& ip, const std::string& mask);
    InterfaceConf(const InterfaceConf&) = default;
    InterfaceConf& operator=(const InterfaceConf&) = default;

    /// True in every case.
    bool Overwrite(const Json::Value& v) override;
    /// Whether no field is empty.
    bool IsValid() const override;
    /// Both forms hold every field.
    bool Write(Json::Value& out, bool) const override;
    virtual ~InterfaceConf();

    /// Compares every field.
    bool operator==(const InterfaceConf& other) const;
    bool operator!=(const InterfaceConf& other) const;

    std::string name; ///< such as "eth0"; "pppoe" for a PPPoE link
    std::string ip;   ///< IPv4 address in dotted text
    std::string mask; ///< netmask in dotted text
};

/// How the device is reachable on its networks.
class ZARORELAYD_API NetworkConf : public Config {
public:
    /// Empty, or with `readNow` what ReadConf gives.
    NetworkConf(bool readNow);
    NetworkConf(const NetworkConf&) = default;
    NetworkConf& operator=(const NetworkConf&) = default;

    /// True in every case. An "interface" array replaces the list; its invalid entries are dropped.
    bool Overwrite(const Json::Value& v) override;
    /// Whether every interface is valid.
    bool IsValid() const override;
    /// Both forms hold every field.
    bool Write(Json::Value& out, bool flag) const override;
    virtual ~NetworkConf();

    /// Reads the platform's interfaces that are up, gateway and dynamic DNS name. Appends to the
    /// list of interfaces, so it is meant for a fresh record. What can't be read is logged and
    /// stays as it was. True in every case.
    bool ReadConf();

    /// Compares interfaces (and their order), gateway and host name, not the mode.
    bool operator==(const NetworkConf& other) const;
    bool operator!=(const NetworkConf& other) const;

    std::string ddns;    ///< host name registered with the dynamic DNS provider, or empty
    std::string gateway; ///< address of the default gateway, or empty
    std::list<InterfaceConf> interfaces; ///< those that are up, PPPoE last
    std::string mode;                    ///< set by the control server; a word of its protocol
};

/// What identifies the device towards the servers. The token is a credential.
class ZARORELAYD_API AuthConf : public Config {
public:
    /// Reads the time zone, and with `readNow` the rest by ReadConf.
    AuthConf(bool readNow);
    AuthConf(const AuthConf&) = default;
    AuthConf& operator=(const AuthConf&) = default;

    /// True in every case. Serial and token change only together: a serial without a token gets
    /// one from the platform (an empty one, logged, if that fails); a token without a serial is
    /// ignored. The time zone is not read from JSON.
    bool Overwrite(const Json::Value& v) override;
    /// Whether serial, MAC and token are set.
    bool IsValid() const override;
    /// The forms of Write.
    static constexpr bool kWithoutToken = false;
    static constexpr bool kWithToken = true;

    /// Includes the token only on request.
    bool Write(Json::Value& out, bool withToken) const override;
    virtual ~AuthConf();

    /// Reads serial, token and MAC from the platform. False, logged and nothing changed, when it
    /// gives no serial and token. A device without a MAC gets an empty one, and true.
    bool ReadConf();

    /// The device's MAC as six pairs of hex digits joined by colons; in a cluster, the shared one
    /// as the platform gives it. Empty for a device without one (logged outside a cluster).
    /// Throws bad_alloc when the platform ran out of memory.
    static std::string GetMacAddress();

    /// The MAC of interface `ifname` as 12 hex digits, or empty; in a cluster the shared one for
    /// every name. "eth0" without a MAC gives the factory's, if the kernel knows it. Throws
    /// bad_alloc when the platform ran out of memory.
    static std::string RelaydGetMacAddressByIf(const char* ifname);

    std::string serial;   ///< the device's serial number
    std::string mac;      ///< as GetMacAddress gives it
    std::string token;    ///< proves the serial to the servers: a credential, never to be logged
    std::string timezone; ///< the platform's name for it, such as "Amsterdam"; may be empty
};

/// The whole configuration of the relay daemon. For one thread. Its methods block only for file
/// access unless they say otherwise. A file is replaced by renaming a complete temporary file, so
/// that readers never see half of it; of two writers the later one wins.
class ZARORELAYD_API RelaydConf : public Config {
public:
    /// Defaults, then ReadConfigFile(path) unless `path` is null. A missing or broken file leaves
    /// the defaults, which are valid; IsValid() tells whether the file's settings are.
    RelaydConf(const char* path);
    RelaydConf(const RelaydConf&) = default;
    RelaydConf& operator=(const RelaydConf&) = default;

    /// False, nothing changed, unless `v` is an object. A "service" key replaces the whole list;
    /// invalid entries are logged and dropped. A server id that does not belong to this device is
    /// dropped too, and the next rewrite of the file notifies the administrators.
    bool Overwrite(const Json::Value& v) override;
    /// False, and the first fault logged, unless servers, alias settings and services are valid.
    bool IsValid() const override;
    /// The short form is what the file keeps; the full form adds the switch, mode, debug flag,
    /// this process's id and the network. Neither holds credentials.
    bool Write(Json::Value& v, bool full) const override;
    virtual ~RelaydConf();

    /// Reads a file into this record and remembers its path in any case. False, logged, when it is
    /// missing, unreadable or broken (the record keeps its settings), or when its settings are
    /// invalid (the record has them). A broken file is moved aside as by ReadJsonFile.
    bool ReadConfigFile(const std::string& path);

    /// Replaces a file (by default the one this record was read from) with the short form. Log
    /// settings and servers are written only if the file has them already; its other keys are not
    /// carried over. False, logged, for an invalid record, or when the file can't be read (it then
    /// stays as it is) or written.
    bool WriteConfigFile(const std::string& path);
    bool WriteConfigFile();

    /// Reads everything again from the default file and the platform, but keeps credentials, debug
    /// flag, wait-command server and network mode, which the running daemon got elsewhere. Raises
    /// the alias settings' changed flag when they differ. True also for a missing or broken file,
    /// which means the defaults, without services. False, logged and nothing changed, for settings
    /// that IsValid refuses.
    bool Reload();

    /// For a record that takes the place of a running daemon's: takes over credentials, debug flag
    /// and wait-command server, and raises the alias settings' changed flag when they differ or
    /// that daemon has not acted on a change yet.
    void TakeOver(const RelaydConf& running) {
        auth = running.auth;
        debug = running.debug;
        waitcmd = running.waitcmd;
        if (running.alias.IsChanged() || !alias.HasSameSettings(running.alias)) {
            alias.MarkChanged();
        }
    }

    /// Adds a service that the platform knows. True also when it is in the list already; false,
    /// logged, when the platform has no usable definition.
    bool AddServiceById(const std::string& id);
    /// False when no service has that id.
    bool RemoveServiceById(const std::string& id);
    /// The service with that id, or `services.end()`. Valid until the list changes.
    std::list<ServiceConf>::const_iterator GetServiceById(const std::string& id) const;

    /// Rewrites one key of a file (empty: the one this record was read from) and keeps all others.
    /// False, logged, for an invalid record, or when the file can't be read (it then stays as it
    /// is) or written. Blocks as WriteJsonFileWithNotification does.
    bool WriteServerId(const std::string& path);
    /// The same for the alias settings with the new `alias`, which the record takes too, also when
    /// only the write fails.
    bool WriteAliasName(const std::string& path, const std::string& alias);

    /// Stores the on/off switch in the platform's settings; `enable` stays as it is. May wait 10 s
    /// for other writers. False, logged, when the platform refused.
    bool SetEnableConf(bool on) const;
    /// Reads the stored switch: true for "yes" in any case; false for anything else and when it
    /// can't be read.
    bool GetEnableConf() const;

    /// Sets in `v` what an alias request needs: alias settings, credentials (read now if they are
    /// missing, and empty, logged, if that fails) and server id. Holds the token.
    void DumpDataForAliasReq(Json::Value& v);

    /// Reads a JSON file. `out` is null when it is missing, unreadable or broken; the last two are
    /// logged. A broken file is moved aside to ".bad", or deleted if it can't be moved. True in
    /// every case.
    static bool ReadJsonFile(const std::string& path, Json::Value& out);

    /// Replaces a file with the styled text of `value`, mode 0644; "-" prints it on standard
    /// output. Blocks until the text is on the disk. False, logged and the old file in place, when
    /// it can't be written. True, logged, when only the rename failed: the old file is still in
    /// place.
    static bool WriteJsonFile(const std::string& path, const Json::Value& value);

    /// WriteJsonFile with its result. After a write, and if a stored server id was dropped before,
    /// runs the notifier and waits for it, 10 s at most.
    bool WriteJsonFileWithNotification(const std::string& path, const Json::Value& value);

    /// The device's time zone name from the platform's settings, or empty.
    static std::string GetTimeZone();

    /// The default control server for a time zone, looked up byte for byte; an unknown one has the
    /// first of the two servers. Null: the device's own time zone.
    static std::string GetServerHost(const char* timeZone);

    bool enable;                     ///< the stored switch when the record was built
    std::string serverID;            ///< given by the control server; empty: none yet
    ServerConf control;              ///< the control server
    ServerConf waitcmd;              ///< the wait-command server; a register reply may name another
    AliasConf alias;                 ///< alias settings
    std::list<ServiceConf> services; ///< published services; ids are unique
    NetworkConf network;             ///< filled by Reload and by its own ReadConf
    AuthConf auth;                   ///< credentials; filled by its own ReadConf
    std::string log_file;            ///< path; empty: none
    std::int32_t log_level;          ///< threshold, a syslog priority from 0 to 7; 4 by default
    bool sync;                       ///< only shown, as the mode; false after every Reload
    bool debug;                      ///< only shown
    std::string path;                ///< the file that this record was read from
    bool serverIdCleared;            ///< the next rewrite of the file sends a notification

private:
    /// Reads a file of which some keys are to be rewritten. False, logged, when it must not be.
    bool ReadForRewrite(const std::string& file, Json::Value& v) const;
};

} // namespace ZARO::Relay
