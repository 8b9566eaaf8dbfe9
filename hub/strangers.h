/// The relay's connections that have not logged in: who may stay, and whose turn it is.
#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

namespace ZARO::RelayHub {

class RelaySession;

/// Two bounds keep a crowd from defeating itself. At most kMax connections are accepted; the others
/// wait in the listen backlog. At most kMaxActive of them log in at a time, and the others keep
/// their turn: if all of them were served at once, none would be through before its device gives
/// up.
///
/// A connection becomes active when it sends something. It gives its place up when it sends nothing
/// for kPause, or after kTurn. With its next byte it asks for a place again, and comes before those
/// that have not begun. Networks take turns. When all kMax places are taken and somebody else
/// knocks, the network that has most connections loses the one that has come no further for
/// longest, at least kStandstill: so one network's flood makes room for others, but nobody who gets
/// on with the log-in is driven out. The caller provides the lock.
class Strangers {
    struct Network;

public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t kMax = 512;
    static constexpr std::size_t kMaxActive = 64;
    static constexpr auto kPause = std::chrono::milliseconds(20);
    static constexpr auto kTurn = std::chrono::seconds(1);
    static constexpr auto kStandstill = std::chrono::seconds(2);

    struct Stranger {
        enum class State { Quiet, Waiting, Active };

        RelaySession* session;
        Network* network;        ///< where it comes from
        Clock::time_point moved; ///< when it last came further
        State state = State::Quiet;
        bool begun = false;                   ///< it was active before
        Clock::time_point since, heard;       ///< when it became active; its last byte after that
        std::list<Stranger*>::iterator place; ///< among those in its state, unless it is quiet
        std::list<Stranger>::iterator self;   ///< among those of its network
    };
    using Place = std::list<Stranger>::iterator;

    /// `network` is a number for its network.
    Place Add(RelaySession* session, std::uint64_t network, Clock::time_point now);
    void Remove(Place stranger);
    std::size_t Size() const { return size_; }
    bool IsFull() const { return size_ >= kMax; }

    /// It has sent something. True = serve it now; else Next() names it when it has its turn.
    bool Ask(Place stranger, Clock::time_point now);
    /// It came a step further in its log-in.
    void Advance(Place stranger, Clock::time_point now);
    /// Those whose turn it is; they are active now.
    std::vector<RelaySession*> Next(Clock::time_point now);
    /// Whether somebody waits for a turn.
    bool IsCrowded() const { return !turns_.empty(); }

    /// The one to drop for lack of room; null when there is none.
    RelaySession* Idlest(Clock::time_point now) const;

private:
    struct Network {
        std::uint64_t number = 0;
        std::list<Stranger> all;           ///< longest at a standstill first
        std::list<Stranger*> begun, fresh; ///< those that wait
        bool HasWaiting() const { return !begun.empty() || !fresh.empty(); }
    };

    void SetSize(Network& network, std::size_t before);
    void Activate(Stranger& stranger, Clock::time_point now);
    /// Takes the places of those that paused.
    void Park(Clock::time_point now);

    std::unordered_map<std::uint64_t, Network> networks_;
    std::set<std::pair<std::size_t, Network*>> bySize_;
    std::list<Network*> turns_; ///< networks with waiting ones; the first is next
    std::list<Stranger*> active_;
    std::size_t size_ = 0;
};

} // namespace ZARO::RelayHub
