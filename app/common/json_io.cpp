#include "app/common/json_io.h"

#include <cstring>
#include <exception>
#include <memory>

#include <json/reader.h>
#include <json/writer.h>

namespace ZARO::Relay::app {

namespace {

/// The first of jsoncpp's "* Line 1, Column 2\n  What is wrong\n", on one line.
std::string FirstFault(const std::string& errors) {
    std::string fault;
    for (const char c : errors.substr(0, errors.find("\n*"))) {
        if (c == '\n') {
            fault += fault.empty() ? "" : ":";
        } else if (c != '*' && !(c == ' ' && (fault.empty() || fault.back() == ' '))) {
            fault += c;
        }
    }
    while (!fault.empty() && fault.back() == ':') {
        fault.pop_back();
    }
    return fault;
}

} // namespace

bool ParseJson(const std::string& text, Json::Value& out, std::string* fault) {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["failIfExtra"] = true;
    // What the library's reader refuses must not pass here: it moves such a file aside.
    builder["allowTrailingCommas"] = false;
    builder["skipBom"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    try {
        if (reader->parse(text.data(), text.data() + text.size(), &out, &errors)) {
            return true;
        }
    } catch (const Json::Exception& tooDeep) {
        errors = tooDeep.what();
    }
    out = Json::Value();
    if (fault != nullptr) {
        *fault = FirstFault(errors);
    }
    return false;
}

std::string CompactJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::string StyledJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    return Json::writeString(builder, value) + "\n";
}

const Json::Value* FindMember(const Json::Value& object, const char* key) {
    return object.isObject() ? object.find(key, key + strlen(key)) : nullptr;
}

} // namespace ZARO::Relay::app
