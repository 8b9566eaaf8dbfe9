#include "base/json.h"

#include <cstring>
#include <memory>
#include <new>

#include <json/reader.h>
#include <json/writer.h>

namespace ZARO::json {

namespace {

constexpr int kStrictLevels = 32; // the deepest honest message has 4

// Reader, FastWriter and StyledWriter are the forms that this system's files and servers have had
// from the beginning; jsoncpp marks them as superseded.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

bool ReadLoose(const std::string& text, Json::Value& out, std::string& errors) {
    Json::Reader reader;
    if (reader.parse(text, out, false)) {
        return true;
    }
    errors = reader.getFormattedErrorMessages();
    return false;
}

#pragma GCC diagnostic pop

bool ReadWith(const Json::CharReaderBuilder& builder, const std::string& text, Json::Value& out,
              std::string& errors) {
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(text.data(), text.data() + text.size(), &out, &errors);
}

/// The loose reader can't tell what follows the document, and the other one also takes numbers such
/// as "+1". So both must accept the text.
bool ReadWhole(const std::string& text, Json::Value& out, std::string& errors) {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false; // they would go into files that are written
    builder["failIfExtra"] = true;
    builder["allowTrailingCommas"] = false;
    builder["skipBom"] = false;
    return ReadWith(builder, text, out, errors) && ReadLoose(text, out, errors);
}

bool ReadStrict(const std::string& text, Json::Value& out, std::string& errors) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = kStrictLevels;
    return ReadWith(builder, text, out, errors);
}

bool Read(const std::string& text, Json::Value& out, Grammar grammar, std::string& errors) {
    switch (grammar) {
    case Grammar::Loose:
        return ReadLoose(text, out, errors);
    case Grammar::Whole:
        return ReadWhole(text, out, errors);
    case Grammar::Strict:
        break;
    }
    return ReadStrict(text, out, errors);
}

bool Parse(const std::string& text, Json::Value& out, Grammar grammar, std::string& errors) {
    try {
        if (Read(text, out, grammar, errors)) {
            return true;
        }
    } catch (const Json::Exception& fault) { // nested too deep, unless memory ran out
        if (strstr(fault.what(), "allocate") != nullptr) {
            throw std::bad_alloc();
        }
        errors = fault.what();
    }
    out = Json::Value();
    return false;
}

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

bool Parse(const std::string& text, Json::Value& out, Grammar grammar) {
    std::string errors;
    return Parse(text, out, grammar, errors);
}

bool Parse(const std::string& text, Json::Value& out, std::string& fault) {
    std::string errors;
    if (Parse(text, out, Grammar::Whole, errors)) {
        return true;
    }
    fault = FirstFault(errors);
    return false;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

std::string Compact(const Json::Value& value) {
    Json::FastWriter writer;
    writer.omitEndingLineFeed();
    return writer.write(value);
}

std::string OneLine(const Json::Value& value) {
    return Json::FastWriter().write(value);
}

std::string Styled(const Json::Value& value) {
    return Json::StyledWriter().write(value);
}

#pragma GCC diagnostic pop

std::string Pretty(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    return Json::writeString(builder, value) + "\n";
}

const Json::Value* Find(const Json::Value& object, const char* key) {
    return object.isObject() ? object.find(key, key + strlen(key)) : nullptr;
}

bool Get(const Json::Value& object, const char* key, std::string& out) {
    const Json::Value* member = Find(object, key);
    if (member == nullptr || !member->isString()) {
        return false;
    }
    out = member->asString();
    return true;
}

bool Get(const Json::Value& object, const char* key, std::int32_t& out) {
    const Json::Value* member = Find(object, key);
    if (member == nullptr || !member->isInt()) {
        return false;
    }
    out = member->asInt();
    return true;
}

std::string TextOf(const Json::Value& object, const char* key) {
    std::string text;
    (void)Get(object, key, text); // else it is empty
    return text;
}

int NumberOf(const Json::Value& object, const char* key) {
    std::int32_t number = 0;
    (void)Get(object, key, number); // else it is 0
    return number;
}

Json::Value& Object(Json::Value& value) {
    if (!value.isObject()) {
        value = Json::Value(Json::objectValue);
    }
    return value;
}

} // namespace ZARO::json
