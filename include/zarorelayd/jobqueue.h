/// Requests that run beside each other under a select loop.
#pragma once

#include <boost/shared_ptr.hpp>
#include <curl/curl.h>
#include <json/value.h>
#include <sys/select.h>

#include <list>

#include <zarorelayd/export.h>
#include <zarorelayd/request.h>

namespace ZARO::Relay {

/// Called when a request has finished. A false result is only logged.
using JobCallback = bool (*)(boost::shared_ptr<Request>);

/// One request, what to call when it has finished, and when to start it.
class ZARORELAYD_API Job {
public:
    Job(boost::shared_ptr<Request> request, JobCallback callback, long schedule);

    bool IsValid() const;
    /// For debug dumps: the start time and the request.
    bool Write(Json::Value& out) const;

    boost::shared_ptr<Request> request;
    JobCallback callback; ///< also the job's identity
    long schedule;        ///< seconds since the epoch; 0: running
};

/// Runs jobs on one libcurl multi handle. One thread. A pass of the caller's loop: GetFdSet,
/// GetTimeOffset, select, CheckSchedule, CheckDoneJobs. Nothing blocks. While a job is running,
/// libcurl has timers (connecting, name look-ups, time limits) that neither a descriptor nor
/// GetTimeOffset tells of: give it a turn with CheckSchedule every 100 ms or so at those times.
class ZARORELAYD_API JobQueue {
public:
    JobQueue();
    JobQueue(const JobQueue&) = delete;
    JobQueue& operator=(const JobQueue&) = delete;
    ~JobQueue();

    /// Whether libcurl gave a multi handle.
    bool IsValid() const;

    /// Queues a request, to start in `delay` seconds (0 or less: now). False, logged and nothing
    /// queued, when it can't be started.
    bool Add(boost::shared_ptr<Request> request, JobCallback callback, int delay);
    bool Add(Job& job);

    /// Starts the jobs whose time has come; one that can't be started is dropped without a
    /// callback. True.
    bool CheckSchedule();

    /// Hands finished requests to their callbacks, which may add jobs. False, logged, when libcurl
    /// tells of a handle that no job owns.
    bool CheckDoneJobs();

    /// Lets libcurl make progress.
    bool Perform();

    /// Adds libcurl's descriptors to the sets; `maxfd` becomes their highest, -1 when there is none
    /// yet.
    bool GetFdSet(fd_set* read, fd_set* write, fd_set* except, int* maxfd);

    /// Seconds until the next start: at most 10, 0 or below when one is overdue. Knows nothing of
    /// libcurl's own timers.
    int GetTimeOffset() const;

    /// Drop the jobs with that callback, or all, without calling back. False when libcurl does not
    /// let one go.
    bool Remove(JobCallback callback);
    bool RemoveAll();

    bool IsJobExist(JobCallback callback) const;
    bool IsJobRunning(JobCallback callback) const;

    /// For debug dumps.
    bool Write(Json::Value& out) const;

private:
    bool CheckStart(Job& job);
    bool Finish(CURLMsg& message);

    CURLM* multi_;
    std::list<Job> jobs_;
    int running_;
};

} // namespace ZARO::Relay
