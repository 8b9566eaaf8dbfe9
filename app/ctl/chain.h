/// What a check found, link by link.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace ZARO::Relay::ctl {

/// A link is not checked when it needs an earlier one that is broken.
enum class Outcome { Good, Broken, NotChecked };

struct Link {
    std::string name;
    Outcome outcome = Outcome::NotChecked;
    std::string detail;
    std::string remedy; ///< for a broken one
};

class Chain {
public:
    void Good(const std::string& name, const std::string& detail);
    void Broken(const std::string& name, const std::string& detail, const std::string& remedy);
    void NotChecked(const std::string& name, const std::string& detail);

    /// Whether no link is broken.
    bool Holds() const;

    Json::Value Document() const;
    /// One line per link, then the remedy for the first broken one.
    std::string Render(bool colour) const;

private:
    const Link* FirstBroken() const;

    std::vector<Link> links_;
};

} // namespace ZARO::Relay::ctl
