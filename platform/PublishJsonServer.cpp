#include "PublishJsonServer.h"

#include <cerrno>
#include <exception>

#include "JsonText.h"
#include "Logger.h"

PublishJsonServer::PublishJsonServer(zmq::context_t& context) {
    try {
        zmq::socket_t socket(context, zmq::socket_type::pub);
        // Notifications nobody has taken by shutdown are dropped rather than waited for.
        socket.set(zmq::sockopt::linger, 0);
        m_socket.swap(socket);
    } catch (const zmq::error_t& e) {
        Logger::log(Logger::ERR, "PublishJsonServer: cannot create the socket: error %d (%s)",
                    e.num(), e.what());
    }
}

int PublishJsonServer::bindToAddress(const std::string& endpoint) {
    if (!m_socket.handle()) {
        Logger::log(Logger::ERR, "PublishJsonServer: cannot bind %s: no socket", endpoint.c_str());
        return -ENOTSOCK;
    }
    try {
        m_socket.bind(endpoint);
        m_bound = true;
        return 0;
    } catch (const zmq::error_t& e) {
        Logger::log(Logger::ERR, "PublishJsonServer: cannot bind %s: error %d (%s)",
                    endpoint.c_str(), e.num(), e.what());
        return -e.num();
    }
}

int PublishJsonServer::publish(std::string& topic, Json::Value& body) {
    if (!m_bound) {
        Logger::log(Logger::ERR, "PublishJsonServer: topic %s not published: socket not bound",
                    topic.c_str());
        return -ENOTCONN;
    }
    try {
        const std::string text = JsonText::compact(body);
        // A publish socket drops what a slow subscriber cannot take; it does not block.
        if (!m_socket.send(zmq::buffer(topic),
                           zmq::send_flags::sndmore | zmq::send_flags::dontwait) ||
            !m_socket.send(zmq::buffer(text), zmq::send_flags::dontwait)) {
            Logger::log(Logger::ERR, "PublishJsonServer: topic %s not published: would block",
                        topic.c_str());
            return -EAGAIN;
        }
        return 0;
    } catch (const zmq::error_t& e) {
        Logger::log(Logger::ERR, "PublishJsonServer: topic %s not published: error %d (%s)",
                    topic.c_str(), e.num(), e.what());
        return -e.num();
    } catch (const std::exception& e) {
        Logger::log(Logger::ERR, "PublishJsonServer: topic %s not published: %s", topic.c_str(),
                    e.what());
        return -ENOMEM;
    }
}

std::string PublishJsonServer::getBoundEndpoint() const {
    if (!m_bound) {
        return std::string();
    }
    try {
        return m_socket.get(zmq::sockopt::last_endpoint);
    } catch (const zmq::error_t&) {
        return std::string();
    }
}
