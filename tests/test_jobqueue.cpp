#include <zarorelayd/jobqueue.h>

#include "tests/support/http_server.h"
#include "tests/support/unit.h"

using namespace ZARO::Relay;
using SharedRequest = boost::shared_ptr<Request>;

namespace {

std::vector<std::string> gDone; ///< replies, in the order of their callbacks
JobQueue* gQueue = nullptr;

bool Note(SharedRequest request) {
    gDone.push_back(request->GetResponse());
    return false;
}

/// Its job has left the queue by then, so the same callback can be queued again.
bool NoteAndRepeatOnce(SharedRequest request) {
    EXPECT_EQ(Signs({gQueue->IsJobExist(NoteAndRepeatOnce), Note(request)}), "--");
    const SharedRequest next(new Request(request->GetUrl().c_str(), "", true));
    return gDone.size() > 1 || gQueue->Add(next, NoteAndRepeatOnce, 0);
}

SharedRequest Get(const std::string& url) {
    return SharedRequest(new Request(url.c_str(), "", true));
}

struct JobQueueTest : testing::Test {
    JobQueueTest() {
        gDone.clear();
        gQueue = &queue_;
    }

    /// Drives the queue as a daemon does until this many callbacks have been called.
    bool Drive(std::size_t callbacks) {
        return WaitFor([&] {
            fd_set sets[3] = {};
            int max = -1;
            timeval briefly = {0, 10000};
            EXPECT_TRUE(queue_.GetFdSet(&sets[0], &sets[1], &sets[2], &max));
            select(max + 1, &sets[0], &sets[1], &sets[2], &briefly);
            EXPECT_EQ(Signs({queue_.CheckSchedule(), queue_.CheckDoneJobs()}), "++");
            return gDone.size() >= callbacks;
        });
    }

    const HttpServer server_{[](const auto& q, auto& r) { r.body = q.path; }};
    JobQueue queue_;
};

} // namespace

TEST_F(JobQueueTest, RunsJobsBesideEachOther) {
    const HttpServer server([&server](const auto& q, auto& r) {
        r.body = WaitFor([&] { return server.Requests().size() == 3; }) ? q.path : "alone";
    });
    const SharedRequest refused = Get(HttpServer("").Url()), unknown = Get("http://a..invalid/");
    EXPECT_EQ(Signs({queue_.Add(refused, Note, -5), queue_.Add(unknown, Note, 0)}), "++");
    EXPECT_FALSE(refused->Send()); // the queue owns it now
    for (const char* path : {"/0", "/1", "/2"}) {
        EXPECT_TRUE(queue_.Add(Get(server.Url(path)), Note, 0));
    }
    Json::Value dump;
    EXPECT_TRUE(queue_.Write(dump));
    EXPECT_EQ(dump["jobs"][4]["mode"], "async");
    EXPECT_TRUE(Drive(5));
    EXPECT_THAT(gDone, testing::UnorderedElementsAre("", "", "/0", "/1", "/2"));
    EXPECT_EQ(refused->GetError() * 100 + unknown->GetError(), 607);
    EXPECT_EQ(Signs({refused->IsValid(), queue_.IsJobExist(Note)}), "--"); // spent
    EXPECT_EQ(Signs({refused->Set(server.Url(), std::string(), true), refused->IsValid()}), "++");
}

TEST_F(JobQueueTest, StartsJobsWhenTheyAreDue) {
    const SharedRequest spent = Get("");
    EXPECT_EQ(queue_.GetTimeOffset(), 10);
    EXPECT_TRUE(queue_.Add(spent, NoteAndRepeatOnce, 1)); // dropped when it is due
    EXPECT_TRUE(queue_.Add(Get(server_.Url("/1")), Note, 1));
    EXPECT_TRUE(queue_.Add(Get(server_.Url("/30")), Note, 30));
    EXPECT_LE(queue_.GetTimeOffset(), 1);
    EXPECT_FALSE(queue_.IsJobRunning(Note));
    EXPECT_EQ(Signs({Drive(1), queue_.IsJobExist(Note), queue_.IsJobRunning(Note)}), "++-");
    EXPECT_THAT(gDone, testing::ElementsAre("/1"));
    EXPECT_EQ(queue_.GetTimeOffset(), 10);
    EXPECT_FALSE(queue_.IsJobExist(NoteAndRepeatOnce));
    EXPECT_FALSE(queue_.Add(spent, Note, 0));
    EXPECT_FALSE(queue_.Add(SharedRequest(), Note, 0));
    EXPECT_FALSE(queue_.Add(Get(server_.Url()), JobCallback(), 0));
}

TEST_F(JobQueueTest, RemovesByCallback) {
    const SharedRequest running = Get(server_.Url("/a"));
    const SharedRequest later = Get(server_.Url("/b"));
    EXPECT_EQ(Signs({queue_.Add(running, Note, 0), queue_.Add(later, Note, 60)}), "++");
    EXPECT_TRUE(queue_.Add(Get(server_.Url("/kept")), NoteAndRepeatOnce, 0));
    EXPECT_EQ(Signs({queue_.Remove(Note), queue_.IsJobExist(Note), running->IsValid()}), "+--");
    EXPECT_TRUE(Drive(2));
    EXPECT_THAT(gDone, testing::ElementsAre("/kept", "/kept"));
    const SharedRequest other = Get(server_.Url("/a"));
    EXPECT_EQ(Signs({queue_.Add(other, Note, 0), queue_.Add(running, Note, 9)}), "++");
    EXPECT_EQ(Signs({queue_.RemoveAll(), queue_.IsJobExist(Note), other->IsValid()}), "+--");
    const SharedRequest survivor = Get(server_.Url("/a"));
    survivor->SetData(std::string("b\n"), true);
    {
        JobQueue brief; // its end with running jobs does not harm queue_
        const std::string trace = Captured(STDERR_FILENO, [&] {
            Daemon::_logLevel = 7;
            EXPECT_TRUE(brief.Add(survivor, Note, 0));
            EXPECT_TRUE(brief.Add(Get("http://a\n\x1b[2J/"), Note, 0));
            Daemon::_logLevel = 4;
        });
        const std::string label = "\033[34madd request\033[0m: ";
        EXPECT_EQ(trace, label + server_.Url("/a") + " b\n" + label + "http://a??[2J/ ");
        EXPECT_TRUE(brief.Perform());
    }
    EXPECT_TRUE(survivor->Send());
    EXPECT_TRUE(queue_.Add(Get(server_.Url("/c")), Note, 0));
    EXPECT_TRUE(queue_.Add(running, Note, 9));
    EXPECT_THAT(LogOf("jobqueue", 7, [&] { EXPECT_TRUE(Drive(3)); }),
                testing::Contains("callback execute failed"));
}
