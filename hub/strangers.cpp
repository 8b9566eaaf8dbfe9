#include "hub/strangers.h"

#include <iterator>

namespace ZARO::RelayHub {

using State = Strangers::Stranger::State;

Strangers::Place Strangers::Add(RelaySession* session, std::uint64_t network,
                                Clock::time_point now) {
    Network& home = networks_[network];
    home.number = network;
    home.all.push_back({session, &home, now, State::Quiet, false, now, now, {}, {}});
    home.all.back().self = std::prev(home.all.end());
    SetSize(home, home.all.size() - 1);
    ++size_;
    return home.all.back().self;
}

void Strangers::Remove(Place stranger) {
    Network& home = *stranger->network;
    if (stranger->state == State::Active) {
        active_.erase(stranger->place);
    } else if (stranger->state == State::Waiting) {
        (stranger->begun ? home.begun : home.fresh).erase(stranger->place);
        if (!home.HasWaiting()) {
            turns_.remove(&home);
        }
    }
    home.all.erase(stranger);
    --size_;
    SetSize(home, home.all.size() + 1);
    if (home.all.empty()) {
        networks_.erase(home.number);
    }
}

bool Strangers::Ask(Place stranger, Clock::time_point now) {
    if (stranger->state == State::Active) {
        stranger->heard = now;
    }
    if (stranger->state != State::Quiet) {
        return stranger->state == State::Active;
    }
    if (!IsCrowded() && active_.size() < kMaxActive) {
        stranger->place = active_.insert(active_.end(), &*stranger);
        Activate(*stranger, now);
        return true;
    }
    Network& home = *stranger->network;
    if (!home.HasWaiting()) {
        turns_.push_back(&home);
    }
    std::list<Stranger*>& queue = stranger->begun ? home.begun : home.fresh;
    stranger->place = queue.insert(queue.end(), &*stranger);
    stranger->state = State::Waiting;
    return false;
}

void Strangers::Advance(Place stranger, Clock::time_point now) {
    std::list<Stranger>& all = stranger->network->all;
    all.splice(all.end(), all, stranger);
    stranger->moved = now;
}

std::vector<RelaySession*> Strangers::Next(Clock::time_point now) {
    std::vector<RelaySession*> next;
    if (IsCrowded()) {
        Park(now);
    }
    while (IsCrowded() && active_.size() < kMaxActive) {
        Network& home = *turns_.front();
        std::list<Stranger*>& queue = home.begun.empty() ? home.fresh : home.begun;
        Stranger& chosen = *queue.front();
        active_.splice(active_.end(), queue, queue.begin());
        if (!chosen.begun) {
            Advance(chosen.self, now); // the relay kept it waiting
        }
        Activate(chosen, now);
        next.push_back(chosen.session);
        turns_.pop_front();
        if (home.HasWaiting()) {
            turns_.push_back(&home);
        }
    }
    return next;
}

RelaySession* Strangers::Idlest(Clock::time_point now) const {
    for (auto entry = bySize_.rbegin(); entry != bySize_.rend(); ++entry) {
        for (const Stranger& stranger : entry->second->all) {
            if (stranger.moved + kStandstill > now) {
                break;
            }
            if (stranger.state != State::Waiting) { // else it is the relay that holds it up
                return stranger.session;
            }
        }
    }
    return nullptr;
}

void Strangers::SetSize(Network& network, std::size_t before) {
    bySize_.erase({before, &network});
    if (!network.all.empty()) {
        bySize_.insert({network.all.size(), &network});
    }
}

void Strangers::Activate(Stranger& stranger, Clock::time_point now) {
    stranger.state = State::Active;
    stranger.since = now;
    stranger.heard = now;
    stranger.begun = true;
}

void Strangers::Park(Clock::time_point now) {
    active_.remove_if([now](Stranger* one) { // there are few
        const bool parked = one->heard + kPause <= now || one->since + kTurn <= now;
        one->state = parked ? State::Quiet : one->state;
        return parked;
    });
}

} // namespace ZARO::RelayHub
