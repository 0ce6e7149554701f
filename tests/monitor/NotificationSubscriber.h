#pragma once

// A subscriber on the publisher's fixed endpoint, as the device's media services run one. It
// reads up to a marker of its own after each step, so that "nothing was published" is known
// exactly, without waiting for a time-out.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>
#include <zmq.hpp>

#include "OstPmcPtpCfg.h"
#include "OstPmcPublisher.h"

// Topic and body.
using Publication = std::pair<std::string, std::string>;

class NotificationSubscriber {
  public:
    NotificationSubscriber(zmq::context_t& context, OstPmcPublisher& publisher)
        : m_publisher(publisher), m_socket(context, zmq::socket_type::sub) {
        m_socket.set(zmq::sockopt::linger, 0);
        m_socket.set(zmq::sockopt::subscribe, "");
        m_socket.set(zmq::sockopt::rcvtimeo, 10);
        m_socket.connect("tcp://127.0.0.1:5574");
    }

    // Everything published since the last call, in order, markers left out. The first call
    // waits until publications reach the subscriber at all.
    std::vector<Publication> takeAll() {
        std::vector<Publication> taken;
        OstPmcPtpCfg marker;
        marker.m_cfg_path = MARKER_PATH + std::to_string(++m_markers);
        // A subscription reaches the publisher a moment after connect, and what is published
        // before is lost: the marker goes out again until it comes back.
        for (int attempt = 0; attempt < 500; ++attempt) {
            EXPECT_EQ(0, m_publisher.notifyPtpConfigChange(marker));
            zmq::message_t topic, body;
            while (m_socket.recv(topic) && m_socket.recv(body)) {
                if (body.to_string().find('"' + marker.m_cfg_path + '"') != std::string::npos) {
                    return taken;
                }
                if (body.to_string().find(MARKER_PATH) == std::string::npos) {
                    taken.emplace_back(topic.to_string(), body.to_string());
                }
            }
        }
        ADD_FAILURE() << "the marker publication never arrived";
        return taken;
    }

  private:
    static constexpr const char* MARKER_PATH = "subscriber-marker-";

    OstPmcPublisher& m_publisher;
    zmq::socket_t m_socket;
    unsigned m_markers = 0;
};
