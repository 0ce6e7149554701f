#include "ServerJsonApi.h"

#include <exception>
#include <utility>

#include "IpcResult.h"
#include "Logger.h"

namespace {

// Receives the first frame of one request into frame and drops any further frames, so that the
// REP socket is ready to send the reply. 0, or a negative code when the socket failed.
int receiveRequest(zmq::socket_t& socket, zmq::message_t& frame) {
    try {
        if (!socket.recv(frame, zmq::recv_flags::dontwait)) {
            Logger::log(Logger::ERR, "ServerJsonApi: no request to receive");
            return IpcResult::ERROR_TRANSPORT;
        }
        bool more = frame.more();
        int dropped = 0;
        while (more) {
            zmq::message_t extra;
            if (!socket.recv(extra, zmq::recv_flags::dontwait)) {
                break;
            }
            more = extra.more();
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
    int rc = receiveRequest(*socket, m_request_frame);
    if (rc < 0) {
        return rc;
    }

    const int result = answerRequest(static_cast<const char*>(m_request_frame.data()),
                                     m_request_frame.size(), m_reply_text);
    if (sendReply(*socket, m_reply_text) < 0) {
        return IpcResult::ERROR_TRANSPORT;
    }
    return result;
}

int ServerJsonApi::answerRequest(const char* request, size_t size, std::string& reply) {
    unsigned int code = 0;
    Json::Value data;
    int result = decodeRequest(request, size, code, data);
    bool replyFlag = true;
    bool returned = false;
    bool keep = false;
    Json::Value handlerReply;
    if (result == 0) {
        // A kept reply answers at once. Any other handler that runs may change a record that a
        // kept reply shows.
        keep = isReplyKept(code);
        KeptReply* kept = keep ? keptReply(code) : nullptr;
        if (kept && kept->valid) {
            Logger::log(Logger::VERBOSE, "ServerJsonApi: request %u answered with its kept reply",
                        code);
            reply.assign(kept->text);
            return kept->result;
        }
        IpcMsg msg(code, std::move(data));
        handlerReply = Json::Value(Json::objectValue);
        result = handleRequest(msg, handlerReply, replyFlag, returned);
        if (!keep) {
            dropKeptReplies();
        }
    }
    try {
        // No "data" when the handler cleared replyFlag; an empty one when no handler returned.
        const Json::Value* replyData = !replyFlag ? nullptr : returned ? &handlerReply : &m_no_data;
        writeReply(result, replyData, reply);
    } catch (const std::exception& e) {
        Logger::log(Logger::ERR, "ServerJsonApi: cannot write the reply: %s", e.what());
        writeReply(IpcResult::ERROR_INVALID_PARAM, &m_no_data, reply);
        return IpcResult::ERROR_INVALID_PARAM;
    }
    if (keep && returned) {
        KeptReply* kept = keptReply(code);
        kept->text = reply;
        kept->result = result;
        kept->valid = true;
    }
    return result;
}

int ServerJsonApi::decodeRequest(const char* text, size_t size, unsigned int& code,
                                 Json::Value& data) {
    // A socket without the size limit (an inproc transport, or one not configured) still
    // refuses oversized requests here.
    if (size > static_cast<size_t>(MAX_REQUEST_SIZE)) {
        Logger::log(Logger::ERR, "ServerJsonApi: invalid request: %zu bytes, more than %d", size,
                    MAX_REQUEST_SIZE);
        return IpcResult::ERROR_INVALID_PARAM;
    }
    Json::Value request;
    if (!m_reader.parse(text, size, request)) {
        Logger::log(Logger::ERR, "ServerJsonApi: invalid request: not JSON");
        return IpcResult::ERROR_INVALID_PARAM;
    }
    if (!request.isObject()) {
        Logger::log(Logger::ERR, "ServerJsonApi: invalid request: not a JSON object");
        return IpcResult::ERROR_INVALID_PARAM;
    }
    const Json::Value& fields = request;  // reads without inserting members
    const Json::Value& cmd = fields["cmd"];
    if (!cmd.isUInt()) {
        Logger::log(Logger::ERR, "ServerJsonApi: invalid request: no unsigned \"cmd\"");
        return IpcResult::ERROR_INVALID_PARAM;
    }
    code = cmd.asUInt();
    const Json::Value& payload = fields["data"];
    if (!payload.isNull() && !payload.isObject()) {
        Logger::log(Logger::ERR, "ServerJsonApi: invalid request %u: \"data\" is not an object",
                    code);
        return IpcResult::ERROR_INVALID_PARAM;
    }
    if (payload.isObject()) {
        // The member exists: this finds it, it inserts nothing.
        data.swap(request["data"]);
    }
    return 0;
}

int ServerJsonApi::handleRequest(IpcMsg& msg, Json::Value& reply, bool& replyFlag, bool& returned) {
    const unsigned int code = msg.getMsgCode();
    try {
        const int result = ipcProcessMsg(msg, reply, replyFlag);
        returned = true;
        return result;
    } catch (const std::exception& e) {
        // jsoncpp type errors of a handler reading a payload of the wrong shape end here.
        Logger::log(Logger::ERR, "ServerJsonApi: request %u failed: %s", code, e.what());
    } catch (...) {
        Logger::log(Logger::ERR, "ServerJsonApi: request %u failed: unknown exception", code);
    }
    // Whatever the handler filled before it failed is not a valid answer.
    replyFlag = true;
    returned = false;
    return IpcResult::ERROR_INVALID_PARAM;
}

void ServerJsonApi::writeReply(int result, const Json::Value* data, std::string& reply) {
    // The text the compact writer gives the whole envelope: its members in key order, written
    // straight around the data instead of copying the data into an envelope first.
    reply.clear();
    reply += '{';
    if (data) {
        reply += "\"data\":";
        m_writer.append(*data, reply);
        reply += ',';
    }
    reply += "\"result\":";
    m_writer.append(Json::Value(result), reply);
    reply += ",\"resultText\":";
    m_writer.append(Json::Value(Json::StaticString(IpcResult::text(result))), reply);
    reply += '}';
}

bool ServerJsonApi::isReplyKept(unsigned int /*code*/) {
    return false;
}

void ServerJsonApi::dropKeptReplies() {
    for (KeptReply& kept : m_kept) {
        kept.valid = false;
    }
}

ServerJsonApi::KeptReply* ServerJsonApi::keptReply(unsigned int code) {
    for (KeptReply& kept : m_kept) {
        if (kept.code == code) {
            return &kept;
        }
    }
    m_kept.emplace_back();
    m_kept.back().code = code;
    return &m_kept.back();
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
