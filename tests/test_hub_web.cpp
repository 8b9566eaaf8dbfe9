/// The web listener alone: bounds, slow and vanished clients, requests sent ahead.
#include <sys/socket.h>

#include <atomic>
#include <list>
#include <mutex>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "hub/web.h"
#include "tests/support/web_service.h"

namespace ZARO::RelayHub {
namespace {

/// "/echo" answers at once, "/hold" when the test says so, "/drop" never.
struct HubWeb : testing::Test {
    static constexpr std::size_t kMost = 8;

    HubWeb() {
        std::string error;
        EXPECT_TRUE(loops_.Start(error) && web_.Start("127.0.0.1", 0, error)) << error;
    }
    ~HubWeb() override {
        ReleaseAll();
        web_.Stop();
        loops_.Stop();
    }

    static std::string Request(const std::string& page, const std::string& body = "") {
        return "POST " + page +
               " HTTP/1.1\r\nHost: a\r\nContent-Length: " + std::to_string(body.size()) +
               "\r\n\r\n" + body;
    }
    static std::string Chunked(const std::string& body) {
        return "POST /echo HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n" + body;
    }
    std::unique_ptr<Visitor> Client(const std::string& text) const {
        auto client = std::make_unique<Visitor>(web_.Port());
        EXPECT_TRUE(client->Send(text));
        return client;
    }
    /// The first line of the reply, and its body if it says that the connection stays.
    static std::string ReplyTo(const Visitor& client) {
        std::string status = client.Line();
        std::size_t size = 0;
        bool stays = false;
        for (std::string line = client.Line(); line.size() > 1; line = client.Line()) {
            stays = stays || line.rfind("Keep-Alive: ", 0) == 0;
            if (line.rfind("Content-Length: ", 0) == 0) {
                size = std::stoul(line.substr(16));
            }
        }
        return status.substr(0, status.find('\r')) + (stays ? " + " : " | ") + client.Read(size);
    }

    /// A client whose request is held.
    std::unique_ptr<Visitor> Held() {
        const std::size_t before = held_;
        auto client = Client(Request("/hold", "held"));
        EXPECT_TRUE(WaitFor([&] { return held_ == before + 1; }));
        return client;
    }
    void Hold(const std::shared_ptr<WebExchange>& exchange) {
        const std::lock_guard<std::mutex> lock(mutex_);
        exchanges_.push_back(exchange);
        exchange->OnHangUp([this] { ++gone_; });
        ++held_;
    }
    void ReleaseAll() {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& exchange : exchanges_) {
            exchange->Answer({"released", "text/plain", ""});
            exchange->Answer({"a second answer", "text/plain", ""});
        }
        exchanges_.clear();
    }

    Loops loops_{2};
    std::mutex mutex_;
    std::list<std::shared_ptr<WebExchange>> exchanges_;
    std::atomic<std::size_t> held_{0}, gone_{0};
    Web web_{loops_,
             {{"/echo",
               [](const std::shared_ptr<WebExchange>& exchange) {
                   exchange->Answer({exchange->Request().body, "text/plain", ""});
               }},
              {"/hold", [this](const std::shared_ptr<WebExchange>& exchange) { Hold(exchange); }},
              {"/drop", [](const std::shared_ptr<WebExchange>&) {}}},
             nullptr,
             kMost};
};

constexpr char kGood[] = "HTTP/1.1 200 OK + ";

TEST_F(HubWeb, AnswersOrRefuses) {
    const std::string head = "POST /echo HTTP/1.1\r\nHost: a\r\n";
    const std::pair<std::string, std::string> kRows[] = {
        {Request("/echo", "hello"), "200 OK + hello"},
        {Request("/echo?x=/y", "hello"), "200 OK + hello"},
        {Request("/drop"), ""},
        {Chunked("5;x=y\r\nhello\r\n1\r\n!\r\n0\r\nTrailer: x\r\n\r\n"), "200 OK | hello!"},
        {Chunked("5\r\nhelloXX\r\n"), "400 Bad Request | "},
        {Chunked("40001\r\n"), "413 Payload Too Large | "},
        {Chunked("4;" + std::string(100000, 'x')), ""},
        {"POST /echo HTTP/1.0\r\nHost: a\r\nContent-Length: 2\r\n\r\nhi", "200 OK | hi"},
        {head + "Connection: close\r\nContent-Length: 2\r\n\r\nhi", "200 OK | hi"},
        {head + "\r\n", "200 OK | "},
        {head + "Content-Length: 2\r\nContent-Length: 3\r\n\r\nhi", "400 Bad Request | "},
        {head + "Content-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\nhi", "400 Bad Request | "},
        {head + "Content-Length: 99999999999999999999\r\n\r\n", "400 Bad Request | "},
        {head + "Content-Length: 262145\r\n\r\n", "413 Payload Too Large | "},
        {head + "Content-Type: Multipart/form-data; boundary=x\r\nContent-Length: 2\r\n\r\nhi",
         "415 Unsupported Media Type | "},
        {"POST /echo HTTP/1.1\r\nContent-Length: 2\r\n\r\nhi", "400 Bad Request | "},
        {"PUT /echo HTTP/1.1\r\nHost: a\r\nContent-Length: 2\r\n\r\nhi", "404 Not Found | "},
        {Request("/echo/../hold"), "404 Not Found | "},
        {Request(""), "400 Bad Request | "},
        {"\x16\x03\x01\r\n\r\n", "400 Bad Request | "},
        {head + "A: " + std::string(40000, 'x'), ""}};
    for (const auto& [request, expected] : kRows) {
        const std::string reply = ReplyTo(*Client(request));
        EXPECT_EQ(reply, (expected.empty() ? " | " : "HTTP/1.1 ") + expected)
            << request.substr(0, 200);
    }
}

TEST_F(HubWeb, NoticesThatTheClientOfAHeldRequestIsGone) {
    const char* const kRows[] = {"it ended", "it broke off", "sent more and ended"};
    std::size_t gone = 0;
    for (const char* how : kRows) {
        auto client = Held();
        if (std::string(how) == "sent more and ended") {
            EXPECT_TRUE(client->Send(Request("/echo", "more")));
        }
        if (std::string(how) == "it broke off") {
            client->BreakOff();
        }
        client.reset();
        EXPECT_TRUE(WaitFor([&] { return gone_ == gone + 1; })) << how;
        ++gone;
    }
    ReleaseAll(); // nobody takes these answers
    EXPECT_EQ(ReplyTo(*Client(Request("/echo", "on"))), kGood + std::string("on"));
    EXPECT_EQ(gone_, gone);
}

TEST_F(HubWeb, AnswersAClientThatOnlyEndedItsSide) {
    const auto client = Client(Request("/echo", std::string(100000, 'x')));
    client->EndSending();
    EXPECT_EQ(ReplyTo(*client), kGood + std::string(100000, 'x'));
    EXPECT_EQ(client->Read(), "");
}

TEST_F(HubWeb, KeepsWhatWasSentAheadInOrder) {
    const auto client = Held();
    std::string ahead, expected;
    for (int i = 0; i < 500; ++i) { // more than it keeps
        const std::string body = std::to_string(i) + std::string(100, 'x');
        ahead += Request("/echo", body);
        expected += kGood + body;
    }
    ASSERT_TRUE(client->Send(ahead));
    EXPECT_EQ(client->Read(1, 300), "") << "nothing overtakes the held one";
    ReleaseAll();
    EXPECT_EQ(ReplyTo(*client), kGood + std::string("released"));
    std::string replies;
    for (int i = 0; i < 500; ++i) {
        replies += ReplyTo(*client);
    }
    EXPECT_EQ(replies, expected);
}

TEST_F(HubWeb, FloodEndsTheIdlestAndNeverABusyOne) {
    std::list<std::unique_ptr<Visitor>> busy;
    for (std::size_t i = 0; i < kMost - 2; ++i) {
        busy.push_back(Held());
    }
    const auto slow = Client("POST /echo HT"); // the idlest: it began first
    const auto idle = Client(Request("/echo", "1"));
    EXPECT_EQ(ReplyTo(*idle), kGood + std::string("1"));
    const auto newest = Client(Request("/echo", "2"));
    EXPECT_EQ(ReplyTo(*newest), kGood + std::string("2"));
    EXPECT_EQ(slow->Read(), "") << "it was ended";
    ASSERT_TRUE(idle->Send(Request("/echo", "3")));
    EXPECT_EQ(ReplyTo(*idle), kGood + std::string("3"));

    std::list<std::unique_ptr<Visitor>> flood;
    for (int i = 0; i < 300; ++i) {
        flood.push_back(Client("P"));
    }
    const auto last = Client(Request("/echo", "4"));
    EXPECT_EQ(ReplyTo(*last), kGood + std::string("4"));
    ReleaseAll();
    for (const auto& client : busy) {
        EXPECT_EQ(ReplyTo(*client), kGood + std::string("released"));
    }
}

TEST_F(HubWeb, SlowClientsHoldNobodyUp) {
    const std::string large = Request("/echo", std::string(200000, 'x'));
    std::list<std::unique_ptr<Visitor>> slow;
    for (const std::string& part :
         {large.substr(0, 10), large.substr(0, 100000), Chunked("5\r\nhe"), std::string("P")}) {
        slow.push_back(Client(part));
    }
    const auto start = Clock::now();
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(ReplyTo(*Client(Request("/echo", "quick"))), kGood + std::string("quick"));
    }
    EXPECT_LT(Clock::now() - start, seconds(1) * kSlow);
}

} // namespace
} // namespace ZARO::RelayHub
