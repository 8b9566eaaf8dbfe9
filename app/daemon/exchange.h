/// The daemon's talk with its servers: registration batches and the long poll.
#pragma once

#include <json/value.h>

#include <functional>

#include <zarorelayd/config.h>
#include <zarorelayd/jobqueue.h>
#include <zarorelayd/result.h>

#include "app/daemon/long_poll.h"
#include "app/daemon/loss_watch.h"
#include "app/daemon/registration.h"
#include "app/daemon/session.h"
#include "app/daemon/tunnel_keeper.h"

namespace ZARO::Relay::app {

/// How often libcurl gets a turn while it is busy.
constexpr milliseconds kTurn{100};

/// Decides when each request goes out and what its success or failure means for the other kind.
/// Runs on the job queue of the daemon's one loop; nothing blocks. One object per process, since
/// job callbacks are plain functions.
class Exchange {
public:
    /// `reload` is called when the server says that it has moved.
    Exchange(RelaydConf& conf, JobQueue& queue, TunnelKeeper& keeper, std::function<void()> reload);
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;
    ~Exchange();

    /// Starts what is due.
    void Tick(Time now);
    /// When Tick is to be called next, at the latest.
    Time NextDue() const;
    /// When libcurl is to get a turn at the latest, whatever its descriptors say.
    Time NextTurn(Time now) const;

    /// Whether a request is out.
    bool HasRequest() const;

    /// The configuration changed: a batch is built at the next Tick, without a wait.
    void ConfigurationChanged(Time now);
    /// The network changed: as above, and the long poll is sent again.
    void NetworkChanged(Time now);
    /// The next batch registers, whatever the server has acknowledged.
    void RegisterAgain() { registration_.RegisterAgain(); }
    /// Forgets resolved names, and with them the cookies of the shared store.
    void DropNames() { session_.DropNames(); }
    /// Ends all requests; the next batch registers.
    void Stop();

    bool IsRegistered() const { return registration_.IsRegistered(); }
    RELAYD_STATE State() const;
    RELAYD_RET Error() const;

    /// Takes in a reply to the long poll: the tunnels become those that it lists.
    RELAYD_RET TakeWaitReply(const Json::Value& reply, Time now);

    Json::Value Dump() const;

private:
    static bool OnBatchDone(boost::shared_ptr<Request> request);
    static bool OnWaitDone(boost::shared_ptr<Request> request);

    void StartBatch(Time now);
    void BatchDone(Request& request, Time now);
    Outcome TakeBatchReply(Request& request, Time now);
    void BatchFailed(const Outcome& outcome, Time now);

    Time NextWait() const;
    void StartWait(Time now);
    void WaitDone(Request& request, Time now);
    void WaitFailed(RELAYD_RET result, Time now);

    Time ResendDue() const;
    void Resend(Time now);
    bool Mend(RELAYD_RET result);
    milliseconds SpreadAfter(RELAYD_RET result) const;

    const RelaydConf& conf_;
    std::function<void()> reload_;
    Session session_;
    Registration registration_;
    LongPoll poll_;
    LossWatch losses_;
    int resends_ = 0; ///< how often a request may still be sent again for lack of an answer
    unsigned long failures_ = 0;
};

} // namespace ZARO::Relay::app
