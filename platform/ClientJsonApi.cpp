#include "ClientJsonApi.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>

#include "IpcResult.h"
#include "JsonText.h"
#include "Logger.h"

ClientJsonApi::ClientJsonApi() = default;

ClientJsonApi::~ClientJsonApi() = default;

int ClientJsonApi::getClientTimeout() {
    return DEFAULT_TIMEOUT_MS;
}

int ClientJsonApi::init(zmq::context_t& context) {
    m_context = &context;
    return openSocket();
}

int ClientJsonApi::openSocket() {
    m_socket.reset();
    std::string address;
    try {
        address = getIpcConnectAddress();
        auto socket = std::make_unique<zmq::socket_t>(*m_context, zmq::socket_type::req);
        // A request still queued when the client goes away is not worth waiting for.
        socket->set(zmq::sockopt::linger, 0);
        socket->connect(address);
        m_socket = std::move(socket);
        m_receive_timeout_ms = -1;
        return IpcResult::OK;
    } catch (const zmq::error_t& e) {
        Logger::log(Logger::ERR, "ClientJsonApi: cannot connect to %s: error %d (%s)",
                    address.c_str(), e.num(), e.what());
    } catch (const std::exception& e) {
        Logger::log(Logger::ERR, "ClientJsonApi: cannot connect to %s: %s", address.c_str(),
                    e.what());
    }
    return IpcResult::ERROR_NOT_CONNECTED;
}

int ClientJsonApi::sendMessage(IpcMsg& msg, Json::Value& reply) {
    m_previous_reply.swap(reply);
    reply = Json::Value(Json::objectValue);
    const unsigned int code = msg.getMsgCode();
    if (!m_context) {
        Logger::log(Logger::ERR, "ClientJsonApi: request %u: client not initialised", code);
        return fail(IpcResult::ERROR_NOT_CONNECTED);
    }
    // A socket lost to an earlier failure is opened again for this request.
    if (!m_socket && openSocket() < 0) {
        return fail(IpcResult::ERROR_NOT_CONNECTED);
    }
    try {
        writeRequest(msg);
        if (!m_socket->send(zmq::buffer(m_request_text), zmq::send_flags::dontwait)) {
            Logger::log(Logger::ERR, "ClientJsonApi: request %u: cannot send to %s now", code,
                        getIpcConnectAddress().c_str());
            return failAndReset(IpcResult::ERROR_TRANSPORT);
        }
        m_previous_reply = Json::Value();
        const int timeoutMs = getClientTimeout();
        const int ready = awaitReply(timeoutMs);
        if (ready < 0) {
            Logger::log(Logger::ERR, "ClientJsonApi: request %u: waiting for the reply failed: %s",
                        code, strerror(-ready));
            return failAndReset(IpcResult::ERROR_TRANSPORT);
        }
        if (ready == 0) {
            Logger::log(Logger::ERR, "ClientJsonApi: request %u: no reply from %s within %d ms",
                        code, getIpcConnectAddress().c_str(), timeoutMs);
            // The REQ socket still waits for this reply; only a new socket can send again.
            return failAndReset(IpcResult::ERROR_TIMEOUT);
        }
        return receiveReply(code, reply);
    } catch (const zmq::error_t& e) {
        Logger::log(Logger::ERR, "ClientJsonApi: request %u failed: error %d (%s)", code, e.num(),
                    e.what());
    } catch (const std::exception& e) {
        Logger::log(Logger::ERR, "ClientJsonApi: request %u failed: %s", code, e.what());
    }
    return failAndReset(IpcResult::ERROR_TRANSPORT);
}

void ClientJsonApi::writeRequest(const IpcMsg& msg) {
    // The compact text of {"cmd": <code>, "data": <payload>}, members in key order, written
    // without building that object first.
    m_request_text.assign("{\"cmd\":");
    m_writer.append(Json::Value(msg.getMsgCode()), m_request_text);
    if (!msg.getJsonData().isNull()) {
        m_request_text += ",\"data\":";
        m_writer.append(msg.getJsonData(), m_request_text);
    }
    m_request_text += '}';
}

int ClientJsonApi::awaitReply(int timeoutMs) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    int waitMs = timeoutMs;
    for (;;) {
        setReceiveTimeout(waitMs);
        if (zmq_msg_recv(m_reply_frame.handle(), m_socket->handle(), 0) >= 0) {
            return 1;
        }
        const int error = zmq_errno();
        if (error == EAGAIN) {
            return 0;
        }
        if (error != EINTR) {
            return -error;
        }
        // A signal cut the wait short: wait for the rest of the time only.
        if (timeoutMs >= 0) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            waitMs = left.count() > 0 ? static_cast<int>(left.count()) : 0;
        }
    }
}

void ClientJsonApi::setReceiveTimeout(int timeoutMs) {
    const int value = timeoutMs < 0 ? -1 : timeoutMs;
    if (value != m_receive_timeout_ms) {
        m_socket->set(zmq::sockopt::rcvtimeo, value);
        m_receive_timeout_ms = value;
    }
}

int ClientJsonApi::receiveReply(unsigned int code, Json::Value& reply) {
    // Only the first frame is the reply; the rest is read so that the socket can send again.
    bool more = m_reply_frame.more();
    while (more) {
        zmq::message_t extra;
        if (!m_socket->recv(extra, zmq::recv_flags::dontwait)) {
            break;
        }
        more = extra.more();
    }

    DecodedReply& decoded = decodedReply(code);
    if (!decodeReply(decoded)) {
        Logger::log(Logger::ERR, "ClientJsonApi: request %u: undecodable reply from %s", code,
                    getIpcConnectAddress().c_str());
        return fail(IpcResult::ERROR_BAD_REPLY);
    }
    m_last_result_text = decoded.resultText;
    if (decoded.data.isObject()) {
        reply = decoded.data;
    }
    return decoded.result;
}

bool ClientJsonApi::decodeReply(DecodedReply& decoded) {
    const char* bytes = static_cast<const char*>(m_reply_frame.data());
    const size_t size = m_reply_frame.size();
    if (decoded.valid && decoded.text.size() == size &&
        std::memcmp(decoded.text.data(), bytes, size) == 0) {
        return true;
    }
    decoded.valid = false;
    Json::Value envelope;
    const Json::Value& fields = envelope;  // reads without inserting members
    if (!m_reader.parse(bytes, size, envelope) || !envelope.isObject() ||
        !fields["result"].isInt() || !(fields["data"].isNull() || fields["data"].isObject())) {
        return false;
    }
    decoded.result = fields["result"].asInt();
    const Json::Value& text = fields["resultText"];
    decoded.resultText = text.isString() ? text.asString() : IpcResult::text(decoded.result);
    decoded.data = Json::Value();
    if (fields["data"].isObject()) {
        decoded.data.swap(envelope["data"]);
    }
    decoded.text.assign(bytes, size);
    decoded.valid = true;
    return true;
}

ClientJsonApi::DecodedReply& ClientJsonApi::decodedReply(unsigned int code) {
    for (DecodedReply& decoded : m_decoded) {
        if (decoded.code == code) {
            return decoded;
        }
    }
    // A client asks a handful of codes; one that asks many shares the last entry among them.
    constexpr size_t MOST_CODES = 8;
    if (m_decoded.size() < MOST_CODES) {
        m_decoded.emplace_back();
    }
    DecodedReply& decoded = m_decoded.back();
    decoded.code = code;
    decoded.valid = false;
    return decoded;
}

int ClientJsonApi::fail(int code) {
    m_last_result_text = IpcResult::text(code);
    return code;
}

int ClientJsonApi::failAndReset(int code) {
    m_socket.reset();
    if (m_context) {
        openSocket();
    }
    return fail(code);
}
