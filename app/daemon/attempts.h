/// The requests of one kind that the daemon sends to its server.
#pragma once

#include <optional>

#include <zarorelayd/jobqueue.h>
#include <zarorelayd/result.h>

#include "app/daemon/backoff.h"

namespace ZARO::Relay::app {

/// What came of a request.
struct Outcome {
    RELAYD_RET result = RELAYD_RET_SUCCESS;
    bool refused = false;                ///< the credentials were: trying again soon can't help
    std::optional<seconds> retryAfter{}; ///< the wait that the server asked for
};

/// Keeps at most one request of its kind in the job queue, and remembers what came of the last one
/// and when the next may be sent. For the daemon's one loop; nothing blocks.
class Attempts {
public:
    /// `kind`, a literal, names the requests in the log. The queue calls `done` when one has
    /// finished, and finds the kind's requests by it.
    Attempts(const char* kind, JobQueue& queue, JobCallback done)
        : kind_(kind), queue_(queue), done_(done) {}

    bool IsOut() const { return sentAt_.has_value(); }
    /// When the request that is out was sent; Time::max() when none is.
    Time SentAt() const { return sentAt_.value_or(Time::max()); }
    /// When the next request may be sent.
    Time Next() const { return next_; }
    RELAYD_RET Error() const { return error_; }
    /// Whether the waiting times have grown to their longest.
    bool IsSlow() const { return backoff_.IsSlow(); }
    /// How many requests were sent since the daemon started.
    unsigned long Count() const { return count_; }

    /// False, and nothing is out, when libcurl does not take the request.
    bool Send(const boost::shared_ptr<Request>& request, Time now);
    /// The request that was out has finished.
    void Finish() { sentAt_.reset(); }
    /// Ends the request that is out, if any, without a call of `done`.
    void Drop();
    /// Drops, and forgets all that came before except the count.
    void Reset();

    /// The next request may be sent then, whatever held before.
    void WaitUntil(Time next) { next_ = next; }
    /// What went wrong so far says nothing about the next request, which may be sent now.
    void StartOver(Time now);

    /// The next request may be sent at once.
    void Succeeded(Time now);
    /// Notes the failure. Call Delay next, once everything that the failure calls for is done.
    void Failed(RELAYD_RET result);
    /// The next request waits; near the longest time when `refused`, else at random for up to
    /// `spread` or longer.
    void Delay(bool refused, Time now, milliseconds spread);
    /// The next request waits as long as the server asked, and up to a tenth longer: of many
    /// devices with the same answer, not all come back at once.
    void DelayAsAsked(seconds wait, Time now);

private:
    const char* kind_;
    JobQueue& queue_;
    JobCallback done_;
    std::optional<Time> sentAt_;
    Backoff backoff_{seconds(1), seconds(300)};
    Time next_{};
    RELAYD_RET error_ = RELAYD_RET_SUCCESS;
    unsigned long count_ = 0;
};

} // namespace ZARO::Relay::app
