/// JSON in tests: from text to values and back, and wrong values that every record must ignore.
#pragma once

#include <sstream>

#include <gtest/gtest.h>
#include <json/json.h>

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

/// Sets a record's fields, then offers values of wrong types for each: none may change the record.
template <class Record> void KeepsItsFields(Record record, const char* text) {
    const Json::Value fields = Parse(text);
    EXPECT_TRUE(record.Overwrite(fields));
    const std::string before = Written(record, true);
    for (const std::string& key : fields.getMemberNames()) {
        const char* const own = fields[key].isString() ? "80" : "\"80\"";
        for (const char* wrong : {own, "null", "true", "{}", "[1]", "1.5", "3000000000"}) {
            const std::string offer = "{\"" + key + "\":" + wrong + "}";
            EXPECT_TRUE(record.Overwrite(Parse(offer))) << offer;
            EXPECT_EQ(Written(record, true), before) << offer;
        }
    }
}
