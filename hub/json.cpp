#include "hub/json.h"

#include <json/reader.h>
#include <json/writer.h>

#include <exception>
#include <memory>

namespace ZARO::RelayHub {

bool ParseJson(const std::string& text, Json::Value& value) {
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
