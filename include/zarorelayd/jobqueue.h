/// Requests that run side by side under a select loop.
#pragma once

#include <boost/shared_ptr.hpp>
#include <curl/curl.h>
#include <json/value.h>
#include <sys/select.h>

#include <list>

#include <zarorelayd/export.h>
#include <zarorelayd/request.h>

namespace ZARO::Relay {

/// Called by CheckDoneJobs when a request has finished. The request has its results but must be Set
/// before it is queued again. A false result is only logged.
using JobCallback = bool (*)(boost::shared_ptr<Request>);

/// One request, what to call when it has finished, and when to start it.
class ZARORELAYD_API Job {
public:
    /// `schedule`: as the member. 0 or any time in the past: start when added.
    Job(boost::shared_ptr<Request> request, JobCallback callback, long schedule);

    /// Whether it has a request and a callback.
    bool IsValid() const;
    /// For debug dumps: the start time and the request, which must be there. True.
    bool Write(Json::Value& out) const;

    boost::shared_ptr<Request> request;
    JobCallback callback; ///< also the job's identity
    long schedule;        ///< when to start, in seconds since the epoch; 0: running
};

/// Runs jobs on one libcurl multi handle. For one thread. A pass of the caller's loop: GetFdSet,
/// GetTimeOffset, select, CheckSchedule, CheckDoneJobs. Nothing blocks. While a job is running,
/// libcurl has timers (connecting, name look-ups, time limits) that show neither in a descriptor
/// nor in GetTimeOffset: call CheckSchedule every 100 ms or so then.
class ZARORELAYD_API JobQueue {
public:
    /// Initialises libcurl and makes a multi handle. Failures are logged; IsValid() tells.
    JobQueue();
    JobQueue(const JobQueue&) = delete;
    JobQueue& operator=(const JobQueue&) = delete;
    /// Drops all jobs without calling back. Requests that others hold stay usable.
    ~JobQueue();

    /// Whether there is a multi handle. Without one Add, Perform, GetFdSet, Remove and RemoveAll do
    /// nothing and return false.
    bool IsValid() const;

    /// Queues a request, to start in `delay` seconds (0 or less: now). Shares it until its callback
    /// has returned. False, logged and nothing queued, without a request or a callback, or when it
    /// can't be started.
    bool Add(boost::shared_ptr<Request> request, JobCallback callback, int delay);
    /// Queues a copy of `job`, whose schedule becomes 0 if it starts now. Results as above.
    bool Add(Job& job);

    /// Starts the jobs whose time has come, then Perform. One that can't be started is dropped
    /// without calling back. True.
    bool CheckSchedule();

    /// Perform, then hands finished requests to their callbacks, which may add jobs. False, logged,
    /// when libcurl reports a handle that no job owns.
    bool CheckDoneJobs();

    /// Lets libcurl send and receive what it can without blocking. True, also without jobs.
    bool Perform();

    /// Adds libcurl's descriptors to the sets, which the caller has cleared. `maxfd` becomes the
    /// highest of them, -1 if libcurl has none yet. False, logged, when libcurl refuses.
    bool GetFdSet(fd_set* read, fd_set* write, fd_set* except, int* maxfd);

    /// Seconds until the next start: at most 10; 0 or less when one is overdue. Knows nothing of
    /// libcurl's own timers.
    int GetTimeOffset() const;

    /// Drops the jobs with that callback without calling back. False, logged, when libcurl does not
    /// let one go: that job and those behind it stay.
    bool Remove(JobCallback callback);
    /// Drops all jobs without calling back. True; one that libcurl does not let go is logged.
    bool RemoveAll();

    /// Whether a job with that callback is queued or running.
    bool IsJobExist(JobCallback callback) const;
    /// Whether a job with that callback is running.
    bool IsJobRunning(JobCallback callback) const;

    /// For debug dumps: the number of running transfers and every job. True.
    bool Write(Json::Value& out) const;

private:
    bool CheckStart(Job& job);
    bool Finish(CURLMsg& message);

    CURLM* multi_;
    std::list<Job> jobs_;
    int running_; ///< transfers in progress at the last Perform
};

} // namespace ZARO::Relay
