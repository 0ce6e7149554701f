#pragma once

#include <json/json.h>

#include <string>

// Readable renderings of the daemon's replies and publications. They read only the keys they
// know and show what is missing as "-", so a partial or newer reply still prints.
namespace CtlFormat {
std::string status(const Json::Value& status);
std::string stats(const Json::Value& stats);
std::string config(const Json::Value& config);
std::string publication(const std::string& topic, const Json::Value& body);
// Compact one-line JSON.
std::string compact(const Json::Value& value);
}  // namespace CtlFormat
