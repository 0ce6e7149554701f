#pragma once

// A subscriber on the publisher's fixed endpoint, as the device's media services run one. It
// reads up to a marker of its own after each step, so that "nothing was published" is known
// exactly, without waiting for a time-out.
#include <gtest/gtest.h>

#include <string>
#include <vector>
#include <zmq.hpp>

#include "JsonText.h"
#include "OstPmcPtpCfg.h"
#include "OstPmcPublisher.h"

struct Publication {
    std::string topic;
    std::string body;
};

class NotificationSubscriber {
  public:
    // Connects to tcp://127.0.0.1:5574 and returns once publications reach it (see connected()).
    NotificationSubscriber(zmq::context_t& context, OstPmcPublisher& publisher)
        : m_publisher(publisher), m_socket(context, zmq::socket_type::sub) {
        m_socket.set(zmq::sockopt::linger, 0);
        m_socket.set(zmq::sockopt::subscribe, "");
        m_socket.connect("tcp://127.0.0.1:5574");
        // A subscription reaches the publisher a moment after connect; what is published before
        // is lost, so markers go out until one comes back.
        m_socket.set(zmq::sockopt::rcvtimeo, 10);
        Publication got;
        for (int attempt = 0; attempt < 500 && !m_connected; ++attempt) {
            publishMarker();
            m_connected = receive(got);
        }
        if (!m_connected) {
            ADD_FAILURE() << "no publication reached the subscriber";
            return;
        }
        takeAll();
    }

    bool connected() const { return m_connected; }

    // Everything published since the last call, in order, markers left out.
    std::vector<Publication> takeAll() {
        std::vector<Publication> taken;
        const std::string marker = publishMarker();
        // Only a safeguard against a hang: the marker is already on its way.
        m_socket.set(zmq::sockopt::rcvtimeo, 5000);
        Publication got;
        while (receive(got)) {
            if (got.body == marker) {
                return taken;
            }
            if (got.body.find(MARKER_PATH) == std::string::npos) {
                taken.push_back(got);
            }
        }
        ADD_FAILURE() << "the marker publication never arrived";
        return taken;
    }

  private:
    static constexpr const char* MARKER_PATH = "subscriber-marker-";

    // The body text of the marker published.
    std::string publishMarker() {
        OstPmcPtpCfg cfg;
        cfg.m_cfg_path = MARKER_PATH + std::to_string(++m_markers);
        EXPECT_EQ(0, m_publisher.notifyPtpConfigChange(cfg));
        Json::Value body;
        cfg.Serialize(body);
        return JsonText::compact(body);
    }

    bool receive(Publication& out) {
        zmq::message_t topic, body;
        if (!m_socket.recv(topic) || !m_socket.recv(body)) {
            return false;
        }
        out = {topic.to_string(), body.to_string()};
        return true;
    }

    OstPmcPublisher& m_publisher;
    zmq::socket_t m_socket;
    unsigned m_markers = 0;
    bool m_connected = false;
};
