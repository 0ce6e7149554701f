#pragma once

#include <json/json.h>

// Base of every record that travels as JSON.
class IJsonSerializable {
  public:
    virtual ~IJsonSerializable() = default;
    virtual void Serialize(Json::Value& out) const = 0;
    virtual void Deserialize(Json::Value& in) = 0;
};
