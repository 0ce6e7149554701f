#pragma once

#include <zmq.hpp>

// The process-wide ZeroMQ context.
class ZmqUtils {
  public:
    static ZmqUtils* getInstance();
    zmq::context_t& getContext() { return m_context; }

  private:
    ZmqUtils() = default;
    zmq::context_t m_context;
};
