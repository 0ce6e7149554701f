#include "JsonText.h"

#include <exception>
#include <memory>

namespace JsonText {

bool parse(const char* text, size_t size, Json::Value& out) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = MAX_DEPTH;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    try {
        // Too deep a nesting is reported by an exception rather than by the result.
        if (!reader->parse(text, text + size, &value, &errors)) {
            return false;
        }
    } catch (const std::exception&) {
        return false;
    }
    out.swap(value);
    return true;
}

std::string compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

}  // namespace JsonText
