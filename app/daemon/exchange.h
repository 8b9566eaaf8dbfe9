/// The daemon's talk with the control server: registration batches and the wait-command exchange.
#pragma once

#include <json/value.h>

#include <functional>
#include <string>

#include <zarorelayd/config.h>
#include <zarorelayd/jobqueue.h>
#include <zarorelayd/register.h>
#include <zarorelayd/result.h>

#include "app/daemon/backoff.h"
#include "app/daemon/tunnel_keeper.h"

namespace ZARO::Relay::app {

/// How often libcurl gets a turn while it is busy.
constexpr milliseconds kTurn{100};

/// Runs on the job queue of the daemon's one loop; nothing blocks. One object a process, since job
/// callbacks are plain functions.
class Exchange {
public:
    /// `reload` is called when the server tells that it moved.
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
    bool HasRequest() const { return batch_.runs || wait_.runs; }

    /// The configuration changed: a batch is built at the next Tick, without a wait.
    void ConfigurationChanged(Time now);
    /// The network changed: as above, and the long poll is made anew.
    void NetworkChanged(Time now);
    /// The next batch registers, whatever stands.
    void RegisterAnew();
    /// Forgets resolved names, and with them the cookies of the shared store.
    void DropNames();
    /// Ends all requests; the next batch registers anew.
    void Stop();

    bool IsRegistered() const { return registered_; }
    RELAYD_STATE State() const;
    RELAYD_RET Error() const;

    /// Takes in a reply to the long poll: the tunnels become the ones that it lists.
    RELAYD_RET TakeWaitReply(const Json::Value& reply, Time now);

    Json::Value Dump() const;

private:
    /// What one of the two lines of talk, batches and long polls, remembers of its success.
    struct Line {
        Backoff backoff{seconds(1), seconds(300)};
        Time next{};
        RELAYD_RET error = RELAYD_RET_SUCCESS;
        bool runs = false;
    };

    static bool OnBatchDone(boost::shared_ptr<Request> request);
    static bool OnWaitDone(boost::shared_ptr<Request> request);

    Time ResendDue() const;
    void Resend(Time now);

    void StartBatch(Time now);
    void BatchDone(Request& request, Time now);
    RELAYD_RET TakeBatchReply(Json::Value& reply, Request& request, bool& refused, Time now);
    RELAYD_RET BatchResult(const Json::Value& reply, bool& refused) const;
    void TakeSession(Request& request);

    void StartWait(Time now);
    void RenewWait(Time now);
    void RestartWait(Time now);
    void WaitDone(Request& request, Time now);

    void LookForLoss(const Json::Value& tunnels, Time now);
    void Succeeded(Line& line, Time now);
    void Failed(Line& line, RELAYD_RET result, bool refused, Time now);
    void GaveUp(Line& line, const char* why);
    boost::shared_ptr<Request> MakeRequest(const std::string& url, const Json::Value& body,
                                           bool sameHost);
    bool HasSeparateWaitHost() const;

    RelaydConf& conf_;
    JobQueue& queue_;
    TunnelKeeper& keeper_;
    std::function<void()> reload_;
    Register register_;

    Line batch_;
    Json::Value commands_; ///< the batch that was sent last
    Time batchStarted_{};
    bool batchDue_ = true;
    bool registered_ = false;

    Line wait_;
    bool waitStands_ = false; ///< the last long poll was answered well
    Time waitStarted_{};
    int resends_ = 0; ///< how often a request may still be sent again for lack of an answer
    int revision_ = 0;
    Time lossLookAt_{}; ///< until then a missing service is not asked for again
    Time pace_{};       ///< when the next long poll would go out at the steady pace

    std::string session_;          ///< "name=value; ..." of the session, for hosts of another name
    CURLSH* batchShare_ = nullptr; ///< the cookie store of the batch that was sent last
    bool storeHasSession_ = false; ///< the shared cookie store sends it by itself

    unsigned long batches_ = 0;
    unsigned long waits_ = 0;
    unsigned long failures_ = 0;
};

} // namespace ZARO::Relay::app
