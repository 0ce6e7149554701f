#include "ServerJsonApi.h"

#include <exception>

#include "IpcResult.h"
#include "JsonText.h"
#include "Logger.h"

namespace {

// Receives the first frame of one request into text and drops any further frames, so that the
// REP socket is ready to send the reply. 0, or a negative code when the socket failed.
int receiveRequest(zmq::socket_t& socket, std::string& text) {
    try {
        zmq::message_t frame;
        if (!socket.recv(frame, zmq::recv_flags::dontwait)) {
            Logger::log(Logger::ERR, "ServerJsonApi: no request to receive");
            return IpcResult::ERROR_TRANSPORT;
        }
        text = frame.to_string();
        int dropped = 0;
        while (frame.more()) {
            zmq::message_t extra;
            if (!socket.recv(extra, zmq::recv_flags::dontwait)) {
                break;
            }
            frame.swap(extra);
            ++dropped;
        }
        if (dropped > 0) {
            Logger::log(Logger::WRN, "ServerJsonApi: %d extra request frames dropped", dropped);
        }
        return 0;
    } catch (const zmq::error_t& e) {
        Logger::log(Logger::ERR, "ServerJsonApi: receive failed: error %d (%s)", e.num(), e.what());
        return IpcResult::ERROR_TRANSPORT;
    }
}

std::string replyText(int result, const Json::Value& data, bool withData) {
    Json::Value envelope(Json::objectValue);
    envelope["result"] = result;
    envelope["resultText"] = IpcResult::text(result);
    if (withData) {
        envelope["data"] = data;
    }
    return JsonText::compact(envelope);
}

int sendReply(zmq::socket_t& socket, const std::string& text) {
    try {
        socket.send(zmq::buffer(text), zmq::send_flags::dontwait);
        return 0;
    } catch (const zmq::error_t& e) {
        Logger::log(Logger::ERR, "ServerJsonApi: sending the reply failed: error %d (%s)", e.num(),
                    e.what());
    }
    return IpcResult::ERROR_TRANSPORT;
}

}  // namespace

int ServerJsonApi::ipcPreProcessMsg(zmq::socket_t* socket) {
    if (!socket || !socket->handle()) {
        Logger::log(Logger::ERR, "ServerJsonApi: no request socket");
        return IpcResult::ERROR_NOT_CONNECTED;
    }
    std::string text;
    int rc = receiveRequest(*socket, text);
    if (rc < 0) {
        return rc;
    }

    std::string reply;
    const int result = answerRequest(text.data(), text.size(), reply);
    if (sendReply(*socket, reply) < 0) {
        return IpcResult::ERROR_TRANSPORT;
    }
    return result;
}

int ServerJsonApi::answerRequest(const char* request, size_t size, std::string& reply) {
    Json::Value data(Json::objectValue);
    bool replyFlag = true;
    const int result = handleRequest(request, size, data, replyFlag);
    try {
        reply = replyText(result, data, replyFlag);
    } catch (const std::exception& e) {
        Logger::log(Logger::ERR, "ServerJsonApi: cannot write the reply: %s", e.what());
        reply = replyText(IpcResult::ERROR_INVALID_PARAM, Json::Value(Json::objectValue), true);
        return IpcResult::ERROR_INVALID_PARAM;
    }
    return result;
}

int ServerJsonApi::handleRequest(const char* text, size_t size, Json::Value& reply,
                                 bool& replyFlag) {
    // A socket without the size limit (an inproc transport, or one not configured) still
    // refuses oversized requests here.
    if (size > static_cast<size_t>(MAX_REQUEST_SIZE)) {
        Logger::log(Logger::ERR, "ServerJsonApi: invalid request: %zu bytes, more than %d", size,
                    MAX_REQUEST_SIZE);
        return IpcResult::ERROR_INVALID_PARAM;
    }
    Json::Value request;
    if (!JsonText::parse(text, size, request)) {
        Logger::log(Logger::ERR, "ServerJsonApi: invalid request: not JSON");
        return IpcResult::ERROR_INVALID_PARAM;
    }
    if (!request.isObject()) {
        Logger::log(Logger::ERR, "ServerJsonApi: invalid request: not a JSON object");
        return IpcResult::ERROR_INVALID_PARAM;
    }
    const Json::Value& cmd = request["cmd"];
    if (!cmd.isUInt()) {
        Logger::log(Logger::ERR, "ServerJsonApi: invalid request: no unsigned \"cmd\"");
        return IpcResult::ERROR_INVALID_PARAM;
    }
    const unsigned int code = cmd.asUInt();
    const Json::Value& data = request["data"];
    if (!data.isNull() && !data.isObject()) {
        Logger::log(Logger::ERR, "ServerJsonApi: invalid request %u: \"data\" is not an object",
                    code);
        return IpcResult::ERROR_INVALID_PARAM;
    }

    try {
        IpcMsg msg(code, data);
        return ipcProcessMsg(msg, reply, replyFlag);
    } catch (const std::exception& e) {
        // jsoncpp type errors of a handler reading a payload of the wrong shape end here.
        Logger::log(Logger::ERR, "ServerJsonApi: request %u failed: %s", code, e.what());
    } catch (...) {
        Logger::log(Logger::ERR, "ServerJsonApi: request %u failed: unknown exception", code);
    }
    // Whatever the handler filled before it failed is not a valid answer.
    reply = Json::Value(Json::objectValue);
    replyFlag = true;
    return IpcResult::ERROR_INVALID_PARAM;
}

void ServerJsonApi::configureServerSocket(zmq::socket_t& socket) {
    try {
        socket.set(zmq::sockopt::maxmsgsize, static_cast<int64_t>(MAX_REQUEST_SIZE));
        socket.set(zmq::sockopt::linger, 0);
    } catch (const zmq::error_t& e) {
        Logger::log(Logger::ERR, "ServerJsonApi: cannot set socket options: error %d (%s)", e.num(),
                    e.what());
    }
}
