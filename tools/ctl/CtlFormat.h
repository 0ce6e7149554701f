#pragma once

#include <json/json.h>

#include <string>
#include <vector>

// Readable renderings of the daemon's replies and publications. They read only the keys they
// know and show what is missing as "-", so a partial or newer reply still prints.
namespace CtlFormat {
std::string status(const Json::Value& status);
std::string stats(const Json::Value& stats);
std::string config(const Json::Value& config);
std::string publication(const std::string& topic, const Json::Value& body);
// The rows of config() that differ between two running configurations, "- " before and "+ "
// after; empty when they are the same.
std::string configChanges(const Json::Value& before, const Json::Value& after);
// One line on whether the daemon reads ptp4l, from the "monitor" member of the debug reply;
// empty for a daemon that sends none.
std::string health(const Json::Value& monitor);
// Whether a status has ever been read from ptp4l: before that the records hold defaults.
bool hasReading(const Json::Value& monitor);
// One frame of the live view: health, state, grandmaster, offset, ports, then the last
// notifications (newest last).
std::string top(const Json::Value& debug, const std::vector<std::string>& notifications);
// Compact one-line JSON.
std::string compact(const Json::Value& value);
}  // namespace CtlFormat
