#include "app/common/config_check.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include <zarorelayd/config.h>
#include <zarorelayd/daemon.h>
#include <zarorelayd/zarorelayd.h>

#include "app/common/checks.h"
#include "base/json.h"

namespace ZARO::Relay::app {

namespace {

constexpr off_t kLargestFile = off_t{1} << 20; // bytes; the library takes no larger one

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
    void Check(const Json::Value& object, const Rule (&rules)[N], const std::string& prefix) {
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

/// Keeps the library's own lines about the same faults off.
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
    report.Check(*server, kServerRules, std::string(key) + ".");
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
        report.Check(entry, kServiceRules, place + ".");
        const std::string id = json::TextOf(entry, "id");
        if (!IsServiceId(id)) {
            report.Add(place + ".id", "expected 1 to 63 of letters, digits, \"_\", \"-\", \".\"");
        } else if (!ServiceConf(entry, true).IsValid()) {
            report.Add(place, "service \"" + id + "\" has no port, here or in services.d");
        }
    }
}

} // namespace

bool ReadConfigFile(const std::string& path, bool mayBeMissing, Json::Value& config,
                    std::string& fault) {
    config = Json::Value(Json::objectValue);
    struct stat info = {};
    const bool there = stat(path.c_str(), &info) == 0;
    if (!there && errno == ENOENT && mayBeMissing) {
        return true;
    }
    const char* reason = !there                        ? strerror(errno)
                         : !S_ISREG(info.st_mode)      ? "not a file" // a FIFO would block
                         : info.st_size > kLargestFile ? "larger than 1 MiB"
                                                       : nullptr;
    std::ifstream file;
    if (reason == nullptr) {
        file.open(path);
        reason = file ? nullptr : strerror(errno);
    }
    if (reason != nullptr) {
        fault = path + ": can't be read: " + reason;
        return false;
    }
    std::ostringstream text;
    text << file.rdbuf();
    std::string wrong;
    if (json::Parse(text.str(), config, wrong) && config.isObject()) {
        return true;
    }
    fault = path + ": " + (wrong.empty() ? "expected a JSON object" : "expected JSON: " + wrong);
    config = Json::Value(Json::objectValue);
    return false;
}

namespace {

std::vector<std::string> Check(const std::string& path, bool mayBeMissing, Json::Value& config,
                               bool& unusable) {
    const Quiet quiet;
    Report report(path);
    std::string fault;
    unusable = !ReadConfigFile(path, mayBeMissing, config, fault);
    if (unusable) {
        return {fault};
    }
    report.Check(config, kTopRules, "");
    CheckServer(report, config, "server_control");
    CheckServer(report, config, "server_waitcmd");
    if (const Json::Value* alias = json::Find(config, "server_alias")) {
        report.Check(*alias, kAliasRules, "server_alias.");
    }
    CheckServices(report, config);
    const std::string id = json::TextOf(config, "serverID");
    if (TLIBRelaydVerifyServerId(id.c_str()) == 0) {
        report.Add("serverID", "belongs to another device");
    }
    RelaydConf conf(nullptr);
    conf.Overwrite(config);
    unusable = !conf.IsValid();
    if (unusable && report.Lines().empty()) {
        report.Add("", "expected usable servers and services");
    }
    return report.Lines();
}

} // namespace

std::vector<std::string> CheckConfigFile(const std::string& path, bool mayBeMissing,
                                         bool& unusable) {
    Json::Value config;
    return Check(path, mayBeMissing, config, unusable);
}

std::vector<std::string> CheckReload(const std::string& path, bool mayBeMissing, bool& unusable) {
    Json::Value config;
    std::vector<std::string> faults = Check(path, mayBeMissing, config, unusable);
    const Json::Value* services = json::Find(config, "service");
    unusable = unusable || (services != nullptr && !services->isArray());
    return faults;
}

} // namespace ZARO::Relay::app
