#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <initializer_list>
#include <memory>
#include <string>

// JSON as it travels: records are compared after a trip through text, the way a peer sees them,
// and as parsed values, so that types count (an integer 0 is not a real 0.0, true is not 1).
namespace record_json {

inline Json::Value parse(const std::string& text) {
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value value;
    std::string errors;
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << text;
    return value;
}

inline std::string write(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

template <typename Record>
Json::Value serialized(const Record& record) {
    Json::Value out;
    record.Serialize(out);
    return parse(write(out));
}

template <typename Record>
Record readFrom(const std::string& text) {
    Json::Value in = parse(text);
    Record record;
    record.Deserialize(in);
    return record;
}

// Serialised, sent and read into a fresh record, which then serialises the same: with sample
// values that all differ from the defaults, a field lost either way shows.
template <typename Record>
void expectRoundTrip(const Record& record) {
    const Json::Value wire = serialized(record);
    EXPECT_EQ(serialized(readFrom<Record>(write(wire))), wire);
}

// Values of the wrong type are not guessed at: reading them throws.
template <typename Record>
void expectThrows(std::initializer_list<const char*> texts) {
    for (const char* text : texts) {
        EXPECT_THROW(readFrom<Record>(text), Json::Exception) << text;
    }
}

}  // namespace record_json
