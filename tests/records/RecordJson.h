#pragma once

#include <json/json.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

// JSON as it travels: records are compared after a trip through text, the way a peer sees them.
namespace record_json {

inline Json::Value parse(const std::string& text) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
        throw std::invalid_argument("test JSON does not parse: " + errors + " in " + text);
    }
    return value;
}

inline std::string write(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

// The value as a receiver parses it from the wire.
inline Json::Value overTheWire(const Json::Value& value) {
    return parse(write(value));
}

template <typename Record>
Json::Value serialized(const Record& record) {
    Json::Value out;
    record.Serialize(out);
    return overTheWire(out);
}

// Serialises, sends through text and reads the result into a fresh record.
template <typename Record>
Record roundTrip(const Record& record) {
    Json::Value received = serialized(record);
    Record fresh;
    fresh.Deserialize(received);
    return fresh;
}

template <typename Record>
Record readFrom(const std::string& text) {
    Json::Value in = parse(text);
    Record record;
    record.Deserialize(in);
    return record;
}

}  // namespace record_json

// Compares JSON values including their types (an integer 0 is not a real 0.0, true is not 1).
#define EXPECT_JSON_EQ(expectedText, actual)                                      \
    EXPECT_EQ(record_json::parse(expectedText), record_json::overTheWire(actual)) \
        << "actual: " << record_json::write(actual)
