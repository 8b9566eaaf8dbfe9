/// JSON in tests: texts to values and back, and values that no record may swallow.
#pragma once

#include <json/json.h>

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

/// Throws when the test's own text is wrong.
inline Json::Value Parse(const std::string& text) {
    Json::Value value;
    std::istringstream(text) >> value;
    return value;
}

/// One line, without a line end.
inline std::string Compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

/// What a record writes, as one line.
template <class Record> std::string Written(const Record& record, bool full) {
    Json::Value value;
    EXPECT_TRUE(record.Write(value, full));
    return Compact(value);
}

/// Offers values that are no object, and every key with values of wrong types; none of it may
/// change the record.
template <class Record>
void KeepsItsFields(Record record, const std::vector<std::string>& texts,
                    const std::vector<std::string>& numbers) {
    std::vector<std::string> offers = {"null", "[]", "5", "\"x\"", R"([{"host":"x","id":"x"}])"};
    for (const auto& [keys, own] : {std::pair(texts, "80"), std::pair(numbers, "\"80\"")}) {
        for (const std::string& key : keys) {
            for (const char* wrong : {own, "null", "true", "{}", "[1]", "1.5", "3000000000"}) {
                offers.push_back("{\"" + key + "\":" + wrong + "}");
            }
        }
    }
    const std::string before = Written(record, true);
    for (const std::string& offer : offers) {
        EXPECT_TRUE(record.Overwrite(Parse(offer))) << offer;
        EXPECT_EQ(Written(record, true), before) << offer;
    }
}
