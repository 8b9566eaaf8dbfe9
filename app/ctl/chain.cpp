#include "app/ctl/chain.h"

#include <algorithm>

#include "base/terminal.h"

namespace ZARO::Relay::ctl {

namespace {

constexpr std::size_t kDetail = 160; // columns

struct Mark {
    const char* sign;
    const char* word;
    Tone tone;
};

Mark MarkOf(Outcome outcome) {
    switch (outcome) {
    case Outcome::Good:
        return {"ok", "good", Tone::Good};
    case Outcome::Broken:
        return {"BROKEN", "broken", Tone::Bad};
    case Outcome::NotChecked:
        break;
    }
    return {"-", "not_checked", Tone::Faint};
}

} // namespace

void Chain::Good(const std::string& name, const std::string& detail) {
    links_.push_back({name, Outcome::Good, detail, ""});
}

void Chain::Broken(const std::string& name, const std::string& detail, const std::string& remedy) {
    links_.push_back({name, Outcome::Broken, detail, remedy});
}

void Chain::NotChecked(const std::string& name, const std::string& detail) {
    links_.push_back({name, Outcome::NotChecked, detail, ""});
}

const Link* Chain::FirstBroken() const {
    const auto link = std::find_if(links_.begin(), links_.end(), [](const Link& each) {
        return each.outcome == Outcome::Broken;
    });
    return link != links_.end() ? &*link : nullptr;
}

bool Chain::Holds() const {
    return FirstBroken() == nullptr;
}

Json::Value Chain::Document() const {
    Json::Value document;
    document["good"] = Holds();
    document["link"] = Json::Value(Json::arrayValue);
    for (const Link& link : links_) {
        Json::Value& entry = document["link"].append(Json::Value());
        entry["name"] = link.name;
        entry["outcome"] = MarkOf(link.outcome).word;
        entry["detail"] = link.detail;
        entry["remedy"] = link.remedy;
    }
    return document;
}

std::string Chain::Render(bool colour) const {
    std::vector<std::vector<Cell>> rows;
    for (const Link& link : links_) {
        const Mark mark = MarkOf(link.outcome);
        rows.push_back({{mark.sign, mark.tone},
                        {Clean(link.name)},
                        {Clean(link.detail, kDetail),
                         link.outcome == Outcome::Good ? Tone::Plain : mark.tone}});
    }
    const Link* broken = FirstBroken();
    return Layout(rows, colour) + "\n" +
           (broken == nullptr
                ? "Everything that was checked holds."
                : "Remedy (" + Clean(broken->name) + "): " + Clean(broken->remedy, kDetail)) +
           "\n";
}

} // namespace ZARO::Relay::ctl
