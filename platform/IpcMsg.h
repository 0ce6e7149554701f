#pragma once

#include <json/json.h>

#include <utility>

// One request: its code and its JSON payload (null when the request carries none).
class IpcMsg {
  public:
    explicit IpcMsg(unsigned int code) : m_code(code) {}
    IpcMsg(unsigned int code, const Json::Value& data) : m_code(code), m_data(data) {}
    // Takes the payload over instead of copying it (the server's decoded request).
    IpcMsg(unsigned int code, Json::Value&& data) : m_code(code), m_data(std::move(data)) {}

    unsigned int getMsgCode() const { return m_code; }
    Json::Value& getJsonData() { return m_data; }
    const Json::Value& getJsonData() const { return m_data; }

  private:
    unsigned int m_code;
    Json::Value m_data;
};
