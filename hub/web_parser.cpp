#include "hub/web_parser.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>

#include <boost/beast/core/string.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

namespace ZARO::RelayHub {

namespace {

namespace http = boost::beast::http;

constexpr std::size_t kHeadBytes = 32 << 10;

/// Registering 256 services with the longest names, all of them escaped, takes 230 KB.
constexpr std::size_t kMaxBody = 256 << 10;

/// Room for a body of that size in small chunks.
constexpr std::size_t kBodyBytes = 4 << 20;

constexpr int kMalformed = 400;
constexpr int kNotFound = 404;
constexpr int kTooLarge = 413;
constexpr int kUnsupported = 415;

} // namespace

struct WebParser::Parser : http::request_parser<http::string_body> {};

WebParser::WebParser(const WebPages& pages)
    : pages_(pages), parser_(std::make_unique<Parser>()), budget_(kBodyBytes) {
    parser_->header_limit(kHeadBytes);
    // Judge() looks at the announced length, so that other refusals come first.
    parser_->body_limit(std::numeric_limits<std::uint64_t>::max());
}

WebParser::~WebParser() = default;

WebParser::Progress WebParser::Take(std::string& input) {
    const bool hadHead = parser_->is_header_done();
    boost::system::error_code failed;
    std::size_t taken = 0;
    if (!parser_->is_done()) { // a request without a body is done with its head
        taken = parser_->put(boost::asio::buffer(input), failed);
        input.erase(0, taken);
    }
    if (failed == http::error::header_limit) {
        return Progress::Endless;
    }
    if (failed == http::error::body_limit) {
        return Refuse(kTooLarge);
    }
    if (failed && failed != http::error::need_more) {
        return Refuse(kMalformed);
    }
    if (!hadHead) {
        return parser_->is_header_done()   ? Judge()
               : input.size() > kHeadBytes ? Progress::Endless
                                           : Progress::More;
    }
    // What is left is the beginning of a chunk's own head, which has no bound otherwise.
    const bool isEndless = taken > budget_ || (!parser_->is_done() && input.size() > kHeadBytes);
    budget_ -= std::min(taken, budget_);
    return isEndless ? Progress::Endless : parser_->is_done() ? Progress::Whole : Progress::More;
}

WebParser::Progress WebParser::Judge() {
    const auto& head = parser_->get();
    const std::string target(head.target());
    const bool isGet = head.method() == http::verb::get;
    const auto page =
        pages_.find((isGet ? kGet : std::string()) + target.substr(0, target.find('?')));
    if ((!isGet && head.method() != http::verb::post) || page == pages_.end()) {
        return Refuse(kNotFound);
    }
    handler_ = &page->second;
    // A client may send many parts, or a few bytes that inflate to any size.
    if (head.count(http::field::content_encoding) > 0 ||
        boost::beast::iequals(head[http::field::content_type].substr(0, 10), "multipart/")) {
        return Refuse(kUnsupported);
    }
    if (parser_->content_length().value_or(0) > kMaxBody) {
        return Refuse(kTooLarge);
    }
    parser_->body_limit(kMaxBody);
    parser_->eager(true);
    return Progress::Head;
}

WebParser::Progress WebParser::Refuse(int status) {
    refusal_ = status;
    return Progress::Refused;
}

std::string WebParser::Header(const char* name) const {
    return std::string(parser_->get()[name]);
}

bool WebParser::ExpectsContinue() const {
    return boost::beast::iequals(parser_->get()[http::field::expect], "100-continue");
}

bool WebParser::MayGoOn() const {
    const auto& head = parser_->get();
    return refusal_ == 0 && parser_->keep_alive() && !parser_->chunked() &&
           head.count(http::field::content_length) == 1;
}

std::string WebParser::TakeBody() {
    return std::move(parser_->get().body());
}

} // namespace ZARO::RelayHub
