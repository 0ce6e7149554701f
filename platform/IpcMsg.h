#pragma once

#include <json/json.h>

// One request: its code and its JSON payload (null when the request carries none).
class IpcMsg {
  public:
    explicit IpcMsg(unsigned int code) : m_code(code) {}
    IpcMsg(unsigned int code, const Json::Value& data) : m_code(code), m_data(data) {}

    unsigned int getMsgCode() const { return m_code; }
    Json::Value& getJsonData() { return m_data; }
    const Json::Value& getJsonData() const { return m_data; }

  private:
    unsigned int m_code;
    Json::Value m_data;
};
