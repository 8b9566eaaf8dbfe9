#include "app/daemon/server_reply.h"
#include "app/daemon/attempts.h"
#include "tests/support/json_values.h"

using namespace ZARO::Relay::app;

TEST(RetryAfter, IsFiveToSixtySecondsWhateverAServerAsks) {
    ZARO::Relay::JobQueue queue;
    Attempts attempts("test", queue, nullptr);
    const std::pair<const char*, int> kCases[] = {
        {"5", 5},    {"17", 17},    {"60", 60},   {"61", 60},    {"2147483647", 60},
        {"0", 5},    {"-9", 5},     {"null", -1}, {"\"9\"", -1}, {"{}", -1},
        {"[7]", -1}, {"1e300", -1}, {"true", -1}, {"9.5", -1},   {"99999999999", -1}};
    for (const auto& [number, expected] : kCases) {
        const auto wait = RetryAfter(Parse("{\"retry_after\":" + std::string(number) + "}"));
        ASSERT_EQ(wait.value_or(seconds(-1)).count(), expected) << number;
        for (int draw = 0; wait && draw < 200; ++draw) {
            attempts.DelayAsAsked(*wait, Time());
            EXPECT_GE(attempts.Next(), Time() + *wait);
            EXPECT_LE(attempts.Next(), Time() + milliseconds(*wait) * 11 / 10);
        }
    }
    EXPECT_FALSE(RetryAfter(Parse("[]")));
    EXPECT_FALSE(RetryAfter(Json::Value()));
}
