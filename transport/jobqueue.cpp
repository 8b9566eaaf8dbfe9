#include <zarorelayd/jobqueue.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <limits>
#include <utility>

#include <zarorelayd/daemon.h>

#include "base/json.h"
#include "base/log.h"
#include "base/text.h"

namespace ZARO::Relay {

namespace {

constexpr long kLongestWaitSeconds = 10;

/// Seconds since the epoch, as job schedules count; false when the clock can't be read.
bool ReadClock(long& now) {
    const time_t clock = time(nullptr);
    now = static_cast<long>(clock);
    return clock != static_cast<time_t>(-1);
}

} // namespace

// --- Job

Job::Job(boost::shared_ptr<Request> what, JobCallback done, long when)
    : request(std::move(what)), callback(done), schedule(when) {
}

bool Job::IsValid() const {
    return request != nullptr && callback != nullptr;
}

bool Job::Write(Json::Value& out) const {
    json::Object(out)["schedule"] = static_cast<Json::Int64>(schedule);
    const time_t when = schedule;
    char text[64];
    if (schedule > 0 && ctime_r(&when, text) != nullptr) {
        text[strcspn(text, "\n")] = '\0';
        out["schedule"] = text;
    }
    return request->Write(out);
}

// --- JobQueue

JobQueue::JobQueue() : multi_(nullptr), running_(0) {
    // This text and GetFdSet's have a newline, which leaves an empty line: readers know them so.
    if (curl_global_init(CURL_GLOBAL_ALL) != CURLE_OK) {
        RELAY_LOG(log::Error, "curl_global_init() failed\n");
    }
    multi_ = curl_multi_init();
    if (multi_ == nullptr) {
        RELAY_LOG(log::Error, "%d: curl_multi_init() failed", __LINE__);
    }
}

JobQueue::~JobQueue() {
    curl_global_cleanup(); // first, on purpose: libcurl allows it
    if (multi_ != nullptr) {
        curl_multi_cleanup(multi_);
    }
    for (const Job& job : jobs_) {
        if (job.schedule == 0) {
            job.request->LeaveMulti(); // others who hold it may go on using it
        }
    }
}

bool JobQueue::IsValid() const {
    return multi_ != nullptr;
}

bool JobQueue::Add(boost::shared_ptr<Request> request, JobCallback callback, int delay) {
    long schedule = 0;
    if (delay > 0) {
        if (!ReadClock(schedule)) {
            RELAY_LOG(log::Error, "get time now failed %m");
            return false;
        }
        schedule += delay;
    }
    Job job(std::move(request), callback, schedule);
    return Add(job);
}

bool JobQueue::Add(Job& job) {
    if (!IsValid()) {
        return false;
    }
    if (!job.IsValid()) {
        RELAY_LOG(log::Error, "bad job config");
        return false;
    }
    if (!CheckStart(job)) {
        return false;
    }
    jobs_.push_back(job);
    return true;
}

bool JobQueue::CheckStart(Job& job) {
    long now = 0;
    if (!ReadClock(now)) {
        RELAY_LOG(log::Error, "get time now failed %m");
        return false;
    }
    if (job.schedule > now) {
        return true;
    }
    if (Daemon::IsLogEnable(log::Debug)) {
        std::cerr << "\033[34madd request\033[0m: "
                  << Harmless(job.request->GetUrl().c_str()).Value() << " "
                  << job.request->GetData() << std::flush;
    }
    if (!job.request->JobAdd(multi_)) {
        RELAY_LOG(log::Debug, "add %s failed", job.request->GetData().c_str());
        return false;
    }
    job.schedule = 0;
    return true;
}

bool JobQueue::CheckSchedule() {
    jobs_.remove_if([this](Job& job) { return job.schedule != 0 && !CheckStart(job); });
    Perform();
    return true;
}

bool JobQueue::Perform() {
    if (!IsValid()) {
        return false;
    }
    if (jobs_.empty()) {
        return true;
    }
    while (curl_multi_perform(multi_, &running_) == CURLM_CALL_MULTI_PERFORM) {
    }
    return true;
}

bool JobQueue::GetFdSet(fd_set* read, fd_set* write, fd_set* except, int* maxfd) {
    if (!IsValid()) {
        return false;
    }
    if (curl_multi_fdset(multi_, read, write, except, maxfd) != CURLM_OK) {
        RELAY_LOG(log::Error, "curl_multi_fdset() error\n");
        return false;
    }
    return true;
}

int JobQueue::GetTimeOffset() const {
    long now = 0;
    long offset = kLongestWaitSeconds;
    if (jobs_.empty() || !ReadClock(now)) {
        return static_cast<int>(offset);
    }
    for (const Job& job : jobs_) {
        if (job.schedule != 0) {
            offset = std::min(offset, job.schedule - now);
        }
    }
    // Once a clock without a battery is set, a job can be overdue by more than fits.
    return static_cast<int>(std::max<long>(offset, std::numeric_limits<int>::min()));
}

bool JobQueue::CheckDoneJobs() {
    Perform();
    RELAY_LOG(log::Debug, "queue check done jobs. running: %d (%zu)", running_, jobs_.size());
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
        if (message->msg != CURLMSG_DONE) {
            RELAY_LOG(log::Debug, "WARN!! not msg done??");
        } else if (!Finish(*message)) {
            return false;
        }
    }
    Perform();
    return true;
}

/// Hands one finished request to its callback. False when no job owns it.
bool JobQueue::Finish(CURLMsg& message) {
    const auto job = std::find_if(jobs_.begin(), jobs_.end(), [&](const Job& entry) {
        return *entry.request == static_cast<const void*>(message.easy_handle);
    });
    if (job == jobs_.end()) {
        RELAY_LOG(log::Error, "unregistered easy_handler: %p",
                  static_cast<void*>(message.easy_handle));
        return false;
    }
    const boost::shared_ptr<Request> request = job->request;
    const JobCallback callback = job->callback;
    (void)request->JobDone(message.data.result); // true in every case
    (void)request->JobRemove(multi_);            // logged; the job has ended all the same
    jobs_.erase(job);                            // before the callback, which may add jobs
    if (callback != nullptr && !callback(request)) {
        RELAY_LOG(log::Debug, "callback execute failed");
    }
    return true;
}

bool JobQueue::Remove(JobCallback callback) {
    if (!IsValid()) {
        return false;
    }
    for (auto job = jobs_.begin(); job != jobs_.end();) {
        if (job->callback != callback) {
            ++job;
            continue;
        }
        if (job->schedule == 0 && !job->request->JobRemove(multi_)) {
            RELAY_LOG(log::Error, "remove job[%s] failed", job->request->GetUrl().c_str());
            return false;
        }
        job = jobs_.erase(job);
    }
    return true;
}

bool JobQueue::RemoveAll() {
    if (!IsValid()) {
        return false;
    }
    for (const Job& job : jobs_) {
        if (job.schedule == 0 && !job.request->JobRemove(multi_)) {
            RELAY_LOG(log::Error, "remove job[%s] failed", job.request->GetUrl().c_str());
        }
    }
    jobs_.clear();
    return true;
}

bool JobQueue::IsJobExist(JobCallback callback) const {
    return std::any_of(jobs_.begin(), jobs_.end(),
                       [=](const Job& job) { return job.callback == callback; });
}

bool JobQueue::IsJobRunning(JobCallback callback) const {
    return std::any_of(jobs_.begin(), jobs_.end(), [=](const Job& job) {
        return job.callback == callback && job.schedule == 0;
    });
}

bool JobQueue::Write(Json::Value& out) const {
    json::Object(out)["running"] = running_;
    Json::Value& list = out["jobs"];
    list = Json::Value(Json::arrayValue);
    for (const Job& job : jobs_) {
        Json::Value entry;
        if (job.Write(entry)) {
            list.append(entry);
        }
    }
    return true;
}

} // namespace ZARO::Relay
