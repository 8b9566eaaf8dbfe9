#include "app/common/config_check.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <zarorelayd/daemon.h>
#include <zarorelayd/zarorelayd.h>

#include "base/json.h"
#include "base/names.h"
#include "base/read_file.h"

namespace ZARO::Relay::app {

namespace {

enum class Kind { Text, Port, Level, Seconds, Object, List };

struct Rule {
    const char* key;
    Kind kind;
};

constexpr Rule kTopRules[] = {
    {"serverID", Kind::Text},         {"log_level", Kind::Level},
    {"log_file", Kind::Text},         {"server_control", Kind::Object},
    {"server_waitcmd", Kind::Object}, {"server_alias", Kind::Object},
    {"service", Kind::List},
};
constexpr Rule kServerRules[] = {
    {"protocol", Kind::Text}, {"host", Kind::Text}, {"ip", Kind::Text},
    {"port", Kind::Port},     {"page", Kind::Text},
};
constexpr Rule kAliasRules[] = {
    {"alias", Kind::Text}, {"url", Kind::Text}, {"poll_seconds", Kind::Seconds}};
constexpr Rule kServiceRules[] = {
    {"id", Kind::Text}, {"name", Kind::Text}, {"port", Kind::Port}, {"ext_port", Kind::Port}};

const char* Expected(Kind kind) {
    switch (kind) {
    case Kind::Text:
        return "a text";
    case Kind::Port:
        return "a port from 1 to 65535";
    case Kind::Level:
        return "a level from 0 to 7";
    case Kind::Seconds:
        return "a number of seconds above 0";
    case Kind::Object:
        return "an object";
    case Kind::List:
        return "a list";
    }
    return "";
}

bool Fits(const Json::Value& value, Kind kind) {
    const int number = value.isInt() ? value.asInt() : -1;
    switch (kind) {
    case Kind::Text:
        return value.isString();
    case Kind::Port:
        return IsPort(number);
    case Kind::Level:
        return number >= 0 && number <= 7;
    case Kind::Seconds:
        return number > 0;
    case Kind::Object:
        return value.isObject();
    case Kind::List:
        return value.isArray();
    }
    return false;
}

/// Collects the faults of one file.
class Report {
public:
    explicit Report(std::string path) : path_(std::move(path)) {}

    void Add(const std::string& key, const std::string& fault) {
        lines_.push_back(path_ + ": " + (key.empty() ? "" : "\"" + key + "\": ") + fault);
    }

    template <std::size_t N>
    void CheckMembers(const Json::Value& object, const Rule (&rules)[N],
                      const std::string& prefix) {
        if (!object.isObject()) {
            return;
        }
        for (const Rule& rule : rules) {
            const Json::Value* member = json::Find(object, rule.key);
            if (member != nullptr && !Fits(*member, rule.kind)) {
                Add(prefix + rule.key, std::string("expected ") + Expected(rule.kind));
            }
        }
    }

    std::vector<std::string> Lines() const { return lines_; }

private:
    std::string path_;
    std::vector<std::string> lines_;
};

/// Keeps the library from logging the same faults in its own words.
class Quiet {
public:
    Quiet() : level_(Daemon::_logLevel) { Daemon::_logLevel = -1; }
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;
    ~Quiet() { Daemon::_logLevel = level_; }

private:
    int level_;
};

void CheckServer(Report& report, const Json::Value& config, const char* key) {
    const Json::Value* server = json::Find(config, key);
    if (server == nullptr) {
        return;
    }
    report.CheckMembers(*server, kServerRules, std::string(key) + ".");
    const Json::Value* protocol = json::Find(*server, "protocol");
    if (protocol != nullptr && protocol->isString() && *protocol != "http" &&
        *protocol != "https") {
        report.Add(std::string(key) + ".protocol", "expected \"http\" or \"https\"");
    }
}

void CheckServices(Report& report, const Json::Value& config) {
    const Json::Value* list = json::Find(config, "service");
    if (list == nullptr || !list->isArray()) {
        return;
    }
    for (Json::ArrayIndex i = 0; i < list->size(); ++i) {
        const Json::Value& entry = (*list)[i];
        const std::string place = "service[" + std::to_string(i) + "]";
        report.CheckMembers(entry, kServiceRules, place + ".");
        const std::string id = json::TextOf(entry, "id");
        if (!IsServiceId(id)) {
            report.Add(place + ".id", "expected 1 to 63 of letters, digits, \"_\", \"-\", \".\"");
        } else if (!ServiceConf(entry, true).IsValid()) {
            report.Add(place, "service \"" + id + "\" has no port, here or in services.d");
        }
    }
}

void CheckDocument(Report& report, const Json::Value& config) {
    report.CheckMembers(config, kTopRules, "");
    CheckServer(report, config, "server_control");
    CheckServer(report, config, "server_waitcmd");
    if (const Json::Value* alias = json::Find(config, "server_alias")) {
        report.CheckMembers(*alias, kAliasRules, "server_alias.");
    }
    CheckServices(report, config);
    const std::string id = json::TextOf(config, "serverID");
    if (TLIBRelaydVerifyServerId(id.c_str()) == 0) {
        report.Add("serverID", "belongs to another device");
    }
}

/// Why a file could not be read.
const char* ReasonOf(int error) {
    switch (error) {
    case EISDIR:
    case EINVAL:
    case ENXIO: // a socket can't even be opened
        return "not a file";
    case EFBIG:
        return "larger than 1 MiB";
    default:
        return strerror(error);
    }
}

} // namespace

bool ReadConfigFile(const std::string& path, bool mayBeMissing, Json::Value& config,
                    std::string& fault) {
    config = Json::Value();
    FileText file;
    const Reading reading = ReadFile(path, file, Trust::Anybodys);
    if (reading == Reading::Missing && errno == ENOENT && mayBeMissing) {
        return true;
    }
    if (reading != Reading::Done) {
        fault = path + ": can't be read: " + ReasonOf(errno);
        return false;
    }
    std::string wrong;
    if (json::Parse(file.text, config, wrong) && config.isObject()) {
        return true;
    }
    fault = path + ": " + (wrong.empty() ? "expected a JSON object" : "expected JSON: " + wrong);
    config = Json::Value();
    return false;
}

CheckedConfig CheckConfigFile(const std::string& path, bool mayBeMissing) {
    const Quiet quiet;
    CheckedConfig checked;
    std::string fault;
    if (!ReadConfigFile(path, mayBeMissing, checked.document, fault)) {
        checked.faults = {fault};
        checked.unusable = true;
        return checked;
    }
    Report report(path);
    CheckDocument(report, checked.document);
    (void)checked.conf.Overwrite(checked.document); // without a document the defaults hold
    checked.unusable = !checked.conf.IsValid();
    if (checked.unusable && report.Lines().empty()) {
        report.Add("", "expected usable servers and services");
    }
    checked.faults = report.Lines();
    return checked;
}

CheckedConfig CheckReload(const std::string& path, bool mayBeMissing) {
    CheckedConfig checked = CheckConfigFile(path, mayBeMissing);
    const Json::Value* services = json::Find(checked.document, "service");
    checked.unusable = checked.unusable || (services != nullptr && !services->isArray());
    return checked;
}

} // namespace ZARO::Relay::app
