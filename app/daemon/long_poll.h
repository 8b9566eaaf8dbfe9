/// The wait-command exchange: a request that the server holds until the tunnels change.
#pragma once

#include <json/value.h>

#include <zarorelayd/config.h>
#include <zarorelayd/jobqueue.h>
#include <zarorelayd/result.h>

#include "app/daemon/attempts.h"
#include "app/daemon/session.h"
#include "app/daemon/tunnel_keeper.h"

namespace ZARO::Relay::app {

/// Keeps one long poll at the wait-command server and makes the tunnels those that its replies
/// list. For the daemon's one loop; nothing blocks.
class LongPoll {
public:
    /// `done` is called when a poll has finished.
    LongPoll(const RelaydConf& conf, TunnelKeeper& keeper, Session& session, JobQueue& queue,
             JobCallback done);

    Attempts& Polls() { return polls_; }
    const Attempts& Polls() const { return polls_; }

    /// Whether the last poll was answered well. The server may hold the next one; otherwise it
    /// answers at once.
    bool Stands() const { return stands_; }
    /// When Send is to be called next; Time::max() while a poll is out.
    Time NextSend() const { return polls_.IsOut() ? Time::max() : polls_.Next(); }
    /// When a poll that is out has hung; Time::max() when none is out.
    Time Deadline() const;
    int Revision() const { return revision_; }
    /// Over what time the server wants its devices to come back after it was lost; 0 until it says.
    milliseconds Spread() const { return spread_; }

    /// False when the poll could not be sent.
    bool Send(Time now);
    /// Ends the poll that is out; the next one is sent without a wait, on a connection of its own.
    void Renew(Time now);
    /// Renews the poll, and the server is to answer it at once.
    void Restart(Time now);
    /// Ends the poll and forgets what came of it.
    void Stop();

    /// The tunnels become those that the reply lists. Takes the spread, too, if it names one.
    RELAYD_RET Apply(const Json::Value& reply, Time now);
    /// A poll was answered well: says when the next one goes out.
    void Succeeded(Time now);
    void Failed(RELAYD_RET result);

private:
    Json::Value Body() const;
    void TakeSpread(const Json::Value& answer);

    const RelaydConf& conf_;
    TunnelKeeper& keeper_;
    Session& session_;
    Attempts polls_;
    bool stands_ = false;
    int revision_ = 0;
    milliseconds spread_{0};
    Time pace_{}; ///< when the next poll would go out at the steady pace
};

} // namespace ZARO::Relay::app
