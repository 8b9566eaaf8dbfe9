// RelaydConf's time zone, and the default control server that follows from it.
#include <zarorelayd/config.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include "base/paths.h"
#include "config/defaults.h"
#include "platform/include/zaro/platform.h"

namespace ZARO::Relay {

namespace {

// A serves mainly Europe, Africa and the Middle East, B mainly the Americas, Asia and Oceania.
// Zones that sit on the other side of that line do so on purpose.
enum class Host { A, B };

struct Zone {
    std::string_view name;
    Host host;
};

constexpr Zone kZones[] = {
    {"Adelaide", Host::B},     {"Alaska", Host::B},       {"Almaty", Host::B},
    {"Amman", Host::A},        {"Amsterdam", Host::A},    {"Arizona", Host::B},
    {"Athens", Host::A},       {"Atlantic", Host::B},     {"Auckland", Host::B},
    {"Azores", Host::A},       {"Baghdad", Host::A},      {"Baku", Host::B},
    {"Beijing", Host::B},      {"Beirut", Host::A},       {"Belgrade", Host::A},
    {"Bogota", Host::B},       {"Brasilia", Host::B},     {"Brisbane", Host::B},
    {"Brussels", Host::A},     {"BuenosAires", Host::B},  {"CAT", Host::A},
    {"Calcutta", Host::B},     {"CapeVerde", Host::A},    {"Caracas", Host::B},
    {"Casablanc", Host::A},    {"Central", Host::B},      {"Chihuahua", Host::B},
    {"Darwin", Host::B},       {"Dhaka", Host::B},        {"Dublin", Host::A},
    {"EET", Host::A},          {"EastIndiana", Host::B},  {"Eastern", Host::B},
    {"Egypt", Host::A},        {"Ekaterinburg", Host::B}, {"Fiji", Host::B},
    {"Godthab", Host::B},      {"Guam", Host::B},         {"Guatemala", Host::B},
    {"Harare", Host::A},       {"Hawaii", Host::B},       {"Helsinki", Host::A},
    {"Irkutsk", Host::B},      {"Israel", Host::A},       {"Jakarta", Host::B},
    {"Kabul", Host::B},        {"Karachi", Host::B},      {"Katmandu", Host::B},
    {"Krasnoyarsk", Host::B},  {"Kuwait", Host::A},       {"La_Paz", Host::B},
    {"Magadan", Host::B},      {"Manaus", Host::B},       {"Melbourne", Host::B},
    {"MexicoCity", Host::B},   {"Midway", Host::B},       {"Minsk", Host::A},
    {"Monrovia", Host::A},     {"Montevideo", Host::A},   {"Moscow", Host::A},
    {"Mountain", Host::B},     {"Muscat", Host::B},       {"Nairobi", Host::A},
    {"Newfoundland", Host::B}, {"Noumea", Host::B},       {"Novosibirsk", Host::B},
    {"Pacific", Host::B},      {"Perth", Host::B},        {"Rangoon", Host::B},
    {"Santiago", Host::B},     {"Sarajevo", Host::A},     {"Saskatchewan", Host::B},
    {"Seoul", Host::B},        {"Singapore", Host::B},    {"South_Georgia", Host::A},
    {"Taipei", Host::B},       {"Tasmania", Host::B},     {"Tbilisi", Host::B},
    {"Tehran", Host::A},       {"Tokyo", Host::B},        {"Ulaanbaatar", Host::B},
    {"Vladivostok", Host::B},  {"WAT", Host::A},          {"Windhoek", Host::A},
    {"Yakutsk", Host::B},      {"Yerevan", Host::B},
};

constexpr bool IsSorted() {
    for (std::size_t i = 1; i < std::size(kZones); ++i) {
        if (!(kZones[i - 1].name < kZones[i].name)) {
            return false;
        }
    }
    return true;
}
static_assert(std::size(kZones) == 86 && IsSorted(), "the search needs the table sorted");

} // namespace

std::string RelaydConf::GetTimeZone() {
    char zone[256] = "";
    const std::string settings = paths::InfoFile();
    return TLIBCFileGetKeyValue(settings.c_str(), "timezone", zone, sizeof zone, 0) < 1 ? "" : zone;
}

std::string RelaydConf::GetServerHost(const char* timeZone) {
    const std::string name = timeZone != nullptr ? timeZone : GetTimeZone();
    const Zone* zone =
        std::lower_bound(std::begin(kZones), std::end(kZones), std::string_view(name),
                         [](const Zone& entry, std::string_view key) { return entry.name < key; });
    const bool found = zone != std::end(kZones) && zone->name == name;
    return found && zone->host == Host::B ? ZARO_CONTROL_HOST_B : ZARO_CONTROL_HOST_A;
}

} // namespace ZARO::Relay
