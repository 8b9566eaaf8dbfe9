/// What a check found, link by link.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace ZARO::Relay::ctl {

/// A fault in an earlier link leaves later ones that need it unchecked.
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

    /// Whether none is broken.
    bool Holds() const;

    Json::Value Document() const;
    /// A line a link, then the remedy for the first that is broken.
    std::string Render(bool colour) const;

private:
    const Link* FirstBroken() const;

    std::vector<Link> links_;
};

} // namespace ZARO::Relay::ctl
