#pragma once

#include <json/json.h>

#include <cstddef>
#include <string>

// The JSON text of the wire: strict parsing of what peers send, compact writing of what we
// send. Shared by the request/reply and publish sides so that they agree on one format.
namespace JsonText {
// Deepest nesting accepted from a peer; real requests and replies are a few levels deep.
constexpr int MAX_DEPTH = 100;

// Parses exactly one JSON object or array (no comments, no trailing text, no duplicate keys).
// False for anything else; never throws.
bool parse(const char* text, size_t size, Json::Value& out);
// One line, no indentation.
std::string compact(const Json::Value& value);
}  // namespace JsonText
