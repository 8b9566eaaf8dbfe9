#include <zarorelayd/request.h>

#include "tests/support/http_server.h"
#include "tests/support/unit.h"

using namespace ZARO::Relay;

struct RequestTest : testing::Test {
    RequestTest() { Request::GetCurlShare(true); }
    ~RequestTest() override { Request::SetCookie(""); }

    /// The lines of the cookie store that all requests share.
    static std::vector<std::string> Store() {
        const std::unique_ptr<CURL, void (*)(CURL*)> handle(curl_easy_init(), curl_easy_cleanup);
        curl_slist* list = nullptr;
        curl_easy_setopt(handle.get(), CURLOPT_SHARE, Request::GetCurlShare(false));
        curl_easy_getinfo(handle.get(), CURLINFO_COOKIELIST, &list);
        std::vector<std::string> lines;
        for (const curl_slist* line = list; line != nullptr; line = line->next) {
            lines.emplace_back(line->data);
        }
        curl_slist_free_all(list);
        return lines;
    }
};

TEST_F(RequestTest, SendsWhatItIsGiven) {
    const std::tuple<std::string, bool, const char*, const char*> rows[] = {
        {std::string(8000, 'x'), true, "POST", "/Serv.php"},
        {"", true, "GET", "/Serv.php"},
        {"a=b&c", false, "GET", "/Serv.php?a=b&c"},
        {"", false, "GET", "/Serv.php?"}};
    const HttpServer server("ok");
    Request::SetCookie("sid=1; other=2");
    Request reused("http://127.0.0.1/", "x", true);
    for (const auto& [data, post, method, target] : rows) {
        Request fresh(server.Url().c_str(), data.c_str(), post);
        EXPECT_TRUE(reused.Set(server.Url(), data, post)); // nothing old survives
        for (Request* request : {&fresh, &reused}) {
            EXPECT_TRUE(request->Send()) << target;
            const httplib::Request seen = server.Requests().back();
            EXPECT_EQ(seen.method + seen.target, std::string(method) + target);
            EXPECT_EQ(seen.body, post ? data : "");
            EXPECT_EQ(seen.get_header_value("User-Agent"), "Zarolan Relayd 1.0-3211");
            EXPECT_EQ(seen.get_header_value("Cookie"), "sid=1; other=2");
        }
    }
    EXPECT_TRUE(Request(server.Url(), Parse(R"({"b":[1],"a":"x"})"), true).Send());
    EXPECT_EQ(server.Requests().back().body, "{\"a\":\"x\",\"b\":[1]}\n");
    EXPECT_FALSE(reused.Set("", std::string("y"), true));
    EXPECT_EQ(reused.GetUrl(), server.Url());
    Request none(nullptr, "x", true);
    EXPECT_EQ(Signs({none.Send(), none.SetData(std::string("x"), true), none.JobAdd(nullptr),
                     none.JobRemove(nullptr), Request(none).IsValid()}),
              "-----");
}

TEST_F(RequestTest, TellsOutcomesApart) {
    const std::pair<int, int> statuses[] = {{200, 0}, {204, 255}, {301, 255}, {400, 6},
                                            {499, 6}, {500, 10},  {599, 10},  {600, 255}};
    for (const auto& [status, ret] : statuses) {
        const HttpServer server("body", status);
        Request request(server.Url().c_str(), "", true);
        EXPECT_EQ(request.GetHttpStatus(), -1);
        EXPECT_EQ(request.Send(), status == 200);
        EXPECT_EQ(request.GetHttpStatus(), status);
        EXPECT_EQ(request.GetResponse(), status == 200 ? "body" : "") << status;
        EXPECT_EQ(request.GetError(), ret) << status;
    }
    const HttpServer plain("ok"), stranger("ok", 200, "other.example");
    const std::tuple<std::string, int, const char*> faults[] = {
        {HttpServer("").Url(), RELAYD_RET_NETWORK, "7"}, // the server is gone
        {"http://a..invalid/", RELAYD_RET_RESOLV, "6"},
        {"https" + plain.Url().substr(4), RELAYD_RET_NETWORK, "35"}, // speaks no TLS
        {stranger.Url(), 2, "60"},
        {"nosuch://host/", 2, "1"}};
    for (const auto& [url, ret, code] : faults) {
        Request request(url.c_str(), "", true);
        const std::string text = std::string("curl_easy_perform failed (") + code + "): [" + url;
        EXPECT_TRUE(Logs("request", 3, text + "]", [&] { EXPECT_FALSE(request.Send()); }));
        EXPECT_EQ(request.GetError(), ret) << url;
        EXPECT_EQ(LogOf("request", 6, [&] { request.GetError(); }).size(), ret == 2 ? 2u : 1u);
    }
}

TEST_F(RequestTest, SendsCookiesBackUntilTheyAreForgotten) {
    const HttpServer server([](const auto& q, auto& r) {
        r.set_header("Set-Cookie", q.path.substr(1) + "=1; path=/");
    });
    std::list<std::string> jar = {"old"};
    {
        Request first(server.Url("/a").c_str(), "", true), second(first);
        EXPECT_EQ(Signs({first.GetCookies(jar), first.Send(), first.GetCookies(jar)}), "-++");
        EXPECT_THAT(jar, testing::ElementsAre(testing::MatchesRegex("127.0.0.1\t.*\ta\t1")));
        EXPECT_EQ(Signs({second.GetCookies(jar), second.Send()}), "-+");
        EXPECT_EQ(server.Requests().back().get_header_value("Cookie"), "a=1");
        EXPECT_EQ(Signs({second.Send(), second.GetCookies(jar)}), "++");
        EXPECT_EQ(jar.size(), 2U); // each reply adds one
        Request other(("http://localhost" + server.Url("/c").substr(16)).c_str(), "", true);
        EXPECT_EQ(Signs({other.Send(), other.GetCookies(jar)}), "++");
        EXPECT_THAT(jar, testing::ElementsAre(testing::HasSubstr("\tc\t"))); // only its own host's
    }
    EXPECT_TRUE(Request::CleanDnsCache());
    for (const bool reused : {false, true}) { // the first one opens a connection
        Request request(server.Url("/a").c_str(), "", true);
        EXPECT_EQ(Signs({request.Send(), request.Send()}), "++");
        const std::vector<httplib::Request> seen = server.Requests();
        EXPECT_EQ(seen[seen.size() - 2].has_header("Cookie"), reused);
        EXPECT_EQ(seen[seen.size() - 2].remote_port == seen.back().remote_port, reused);
    }
}

TEST_F(RequestTest, KeepsTheNewestCookiesOfEachHost) {
    int next = 0;
    const HttpServer server([&](const auto& q, auto& r) {
        for (int i = 0; i < 40; ++i, ++next) { // as a server that wants to fill the store
            const std::string name = "c" + std::to_string(next) + "=1";
            const char* const odd[] = {"", "; path=TRUE", "; httponly", "; domain=LocalHost"};
            r.set_header("Set-Cookie", name + odd[q.path == "/odd" ? i % 4 : 0]);
        }
    });
    const HttpServer other([](const auto&, auto& r) { r.set_header("Set-Cookie", "kept=1"); });
    Request first(other.Url().c_str(), "", true);
    EXPECT_TRUE(first.Send());
    const std::string local = "localhost:" + std::to_string(server.Port());
    Request request(("http://" + local + "/").c_str(), "", true);
    std::list<std::string> jar;
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(Signs({request.Send(), request.GetCookies(jar)}), "++");
    }
    EXPECT_EQ(jar.size(), 256U);
    EXPECT_THAT(jar.back(), testing::HasSubstr("\tc319\t"));
    EXPECT_EQ(Store().size(), 257U); // and the other host's
    EXPECT_THAT(Store(), testing::Not(testing::Contains(testing::HasSubstr("\tc63\t"))));
    EXPECT_THAT(Store(), testing::Contains(testing::HasSubstr("\tc64\t"))); // 320 - 256
    Request odd(("http://" + local + "/odd").c_str(), "", true);
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(odd.Send());
    }
    EXPECT_LE(Store().size(), 257U);
    EXPECT_THAT(Store(), testing::Contains(testing::HasSubstr("\tkept\t")));
    Request hostless(local.c_str(), "", true);
    EXPECT_EQ(Signs({hostless.Send(), hostless.GetCookies(jar)}), "+-");
}

TEST_F(RequestTest, CopiesOutliveTheOriginal) {
    const std::string answer = "a long enough answer to be on the heap";
    const HttpServer server(answer);
    for (const char* data : {"a long enough body to be on the heap, too", ""}) {
        auto original = std::make_unique<Request>(server.Url().c_str(), data, true);
        EXPECT_TRUE(original->Send());
        Request copy(*original), assigned(nullptr, nullptr, true);
        assigned = *original;
        EXPECT_EQ(copy.GetResponse() + assigned.GetResponse(), "");
        original.reset();
        for (Request* request : {&copy, &assigned}) {
            EXPECT_TRUE(request->Send());
            EXPECT_EQ(request->GetResponse(), answer);
            EXPECT_EQ(server.Requests().back().body, data);
        }
    }
    auto faulty = std::make_unique<Request>(HttpServer("").Url().c_str(), "", true);
    Request copy(*faulty);
    faulty.reset();
    EXPECT_FALSE(copy.Send());
    EXPECT_THAT(LogOf("request", 5, [&] { copy.GetError(); }),
                testing::ElementsAre(testing::HasSubstr("127.0.0.1"))); // the error text is its own
}

TEST_F(RequestTest, AnAssignedRequestLeavesItsTransferAlone) {
    const HttpServer server([](const auto& q, auto& r) { r.body = q.body; });
    const std::string old(8000, 'o');
    const std::unique_ptr<CURLM, CURLMcode (*)(CURLM*)> multi(curl_multi_init(),
                                                              curl_multi_cleanup);
    Request request(server.Url().c_str(), old.c_str(), true);
    EXPECT_TRUE(request.JobAdd(multi.get()));
    request = Request(server.Url().c_str(), "new", true);
    int running = 0;
    CURLMsg* done = nullptr;
    ASSERT_TRUE(WaitFor([&] {
        curl_multi_perform(multi.get(), &running);
        return (done = curl_multi_info_read(multi.get(), &running)) != nullptr;
    }));
    EXPECT_EQ(done->data.result, CURLE_OK);
    ASSERT_EQ(server.Requests().size(), 1u);
    EXPECT_EQ(server.Requests()[0].body, old);
    curl_easy_cleanup(done->easy_handle);
    EXPECT_TRUE(request.Send());
    EXPECT_EQ(request.GetResponse(), "new");
}

TEST_F(RequestTest, ReadsHostileJsonReplies) {
    for (const std::string& body :
         {std::string(), std::string("<\x1b>\n\xc2\x9b\xc3\xa4\x7f\n"), std::string(1500, '[')}) {
        const HttpServer server(body);
        Request request(server.Url().c_str(), body.c_str(), true);
        Json::Value out;
        EXPECT_TRUE(request.Send());
        EXPECT_EQ(request.GetResponse(), body);
        const std::string shown = body[0] == '<' ? "<?>?\xc2?\xc3\xa4?" : body; // no forged line
        EXPECT_TRUE(Logs("request", 7, "failed to parse response: " + shown,
                         [&] { EXPECT_FALSE(request.GetResponse(out)); }));
        EXPECT_FALSE(request.GetData(out));
    }
}
