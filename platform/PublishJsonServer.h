#pragma once

#include <json/json.h>

#include <string>
#include <zmq.hpp>

// Publish side of the device's notifications: each message is two frames, the topic text and
// the body as compact JSON. Never throws.
class PublishJsonServer {
  public:
    explicit PublishJsonServer(zmq::context_t& context);
    // 0, or a negative errno value when the socket cannot be bound.
    int bindToAddress(const std::string& endpoint);
    // 0, or a negative errno value (-ENOTCONN before a successful bind).
    int publish(std::string& topic, Json::Value& body);
    // The endpoint actually bound (with the port chosen for "tcp://host:*"), or "".
    std::string getBoundEndpoint() const;

  private:
    zmq::socket_t m_socket;
    bool m_bound = false;
};
