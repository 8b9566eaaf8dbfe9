/// Registration with the control server: batches of commands that tell it what has changed.
#pragma once

#include <json/value.h>

#include <list>

#include <zarorelayd/config.h>
#include <zarorelayd/jobqueue.h>
#include <zarorelayd/register.h>
#include <zarorelayd/tunnel.h>

#include "app/daemon/attempts.h"
#include "app/daemon/session.h"

namespace ZARO::Relay::app {

/// Knows what is to be told to the server and what it has acknowledged. For the daemon's one loop;
/// nothing blocks.
class Registration {
public:
    /// What became of a reply.
    enum class Applied { Refused, Updated, Registered };

    /// `tunnels`: those of changed and withdrawn services are ended and dropped from the list.
    /// `done` is called when a batch has finished.
    Registration(RelaydConf& conf, std::list<Tunnel>& tunnels, Session& session, JobQueue& queue,
                 JobCallback done);

    Attempts& Batches() { return batches_; }
    const Attempts& Batches() const { return batches_; }

    bool IsRegistered() const { return registered_; }
    /// Whether there may be something to tell.
    bool IsDue() const { return due_; }
    /// Whether the server has acknowledged everything, as far as is known.
    bool IsSettled() const { return registered_ && !due_ && !batches_.IsOut(); }
    /// When Send is to be called next; Time::max() when nothing is due or a batch is out.
    Time NextSend() const;

    void MakeDue() { due_ = true; }
    /// The next batch registers, whatever the server has acknowledged.
    void RegisterAgain();

    /// Sends the batch that is due. Success with nothing out: there was nothing to tell.
    RELAYD_RET Send(Time now);
    /// Ends the batch that is out; one is sent again without a wait.
    void Resend(Time now);

    /// Takes in the server's reply to the batch, after the checks that the daemon makes of it.
    /// `Refused`: it names a wait-command server that can't be used, so the next batch registers.
    Applied Apply(Json::Value& reply);
    /// The first failure among the commands of the batch.
    Outcome OutcomeOf(const Json::Value& reply) const;

private:
    bool HasRegistered(const Json::Value& reply) const;
    void ParseUnderLock(Json::Value& reply, bool registered);

    RelaydConf& conf_;
    std::list<Tunnel>& tunnels_;
    Session& session_;
    Attempts batches_;
    Register register_;
    Json::Value commands_; ///< the batch that was sent last
    bool due_ = true;
    bool registered_ = false;
};

} // namespace ZARO::Relay::app
