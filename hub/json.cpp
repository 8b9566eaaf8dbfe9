#include "hub/json.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cstddef>
#include <exception>
#include <memory>

namespace ZARO::RelayHub {

namespace {

/// Whether a document has far more values than any honest one. The parser needs a hundred bytes for
/// a value that may have two.
bool HasManyValues(const std::string& text) {
    constexpr int kMaxValues = 8192; // 256 services take 1300
    int values = 0;
    bool quoted = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (quoted && c == '\\') {
            ++i;
        } else if (c == '"') {
            quoted = !quoted;
        } else if (!quoted && (c == ',' || c == '[' || c == '{')) {
            ++values;
        }
    }
    return values > kMaxValues;
}

} // namespace

bool ParseJson(const std::string& text, Json::Value& value) {
    if (HasManyValues(text)) {
        return false;
    }
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["collectComments"] = false;
    builder["stackLimit"] = 32; // the deepest honest document has 4 levels
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string problem;
    try {
        return reader->parse(text.data(), text.data() + text.size(), &value, &problem);
    } catch (const std::exception&) {
        return false; // how the parser reports nesting beyond its limit
    }
}

std::string ToLine(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

} // namespace ZARO::RelayHub
