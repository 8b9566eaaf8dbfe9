/// What a daemon that runs as root keeps of root's power.
#pragma once

namespace ZARO::Relay::app {

/// Gives up every capability that neither the daemon nor the programs it runs need, for good: what
/// is executed later can't get them back either. Without privileges only this last part takes
/// effect.
void DropPrivileges();

} // namespace ZARO::Relay::app
