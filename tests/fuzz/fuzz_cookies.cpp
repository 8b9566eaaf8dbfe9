/// Cookie lines behind the URL that set them, through libcurl's store into the session.
#include "app/daemon/session.h"
#include "tests/fuzz/fuzz.h"

void Fuzz(const std::string& input) {
    std::istringstream lines(input);
    std::list<std::string> kept;
    CURL* const jar = curl_easy_init(); // stands for replies that set cookies in the shared store
    curl_easy_setopt(jar, CURLOPT_SHARE, Request::GetCurlShare(true));
    for (std::string line; std::getline(lines, line);) {
        curl_easy_setopt(jar, CURLOPT_COOKIELIST, line.c_str());
        const std::string pair = app::SessionOf({line}, false);
        assert(pair.find_first_of("; ,\t\r\n") == std::string::npos && pair[0] != '=');
    }
    Request request(input.substr(0, input.find('\n')).c_str(), "", true);
    assert(request.JobDone(CURLE_OK) && request.GetCookies(kept) == !kept.empty());
    assert(app::SessionOf(kept, true).size() <= app::SessionOf(kept, false).size());
    curl_easy_cleanup(jar);
}
