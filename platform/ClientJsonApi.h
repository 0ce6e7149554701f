#pragma once

#include <json/json.h>

#include <memory>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "IpcMsg.h"
#include "JsonText.h"

// Request/reply client side: owns a REQ socket, sends one request and waits for its reply up
// to getClientTimeout(). A lost reply resets the socket so that the next request works.
class ClientJsonApi {
  public:
    // Longer than the server can be busy: a status cycle against a hung ptp4l blocks about
    // 2 s per query, a restart of ptp4l a few seconds more.
    static constexpr int DEFAULT_TIMEOUT_MS = 30000;

    ClientJsonApi();
    virtual ~ClientJsonApi();
    ClientJsonApi(const ClientJsonApi&) = delete;
    ClientJsonApi& operator=(const ClientJsonApi&) = delete;

    // Connects to getIpcConnectAddress(); 0 or a negative code.
    int init(zmq::context_t& context);
    // Sends msg, fills reply with the reply's "data" object and returns its "result"; a
    // negative IpcResult code when no usable reply came.
    int sendMessage(IpcMsg& msg, Json::Value& reply);
    // The "resultText" of the last reply, or the client's own text for a local failure.
    const std::string& getLastResultText() const { return m_last_result_text; }

    virtual std::string getIpcConnectAddress() = 0;
    virtual int getCommandDescription(unsigned int code, std::string& out) = 0;
    // Milliseconds to wait for a reply; a negative value waits without limit.
    virtual int getClientTimeout();

  private:
    int openSocket();
    // Writes the request text of msg into m_request_text; throws what the writer throws.
    void writeRequest(const IpcMsg& msg);
    // Waits for the reply and receives its first frame into m_reply_frame, in one call where
    // poll-then-receive needed several: 1 when it came, 0 on time-out, a negative errno value
    // when receiving failed.
    int awaitReply(int timeoutMs);
    // Sets the socket's receive time-out unless it is set to that already.
    void setReceiveTimeout(int timeoutMs);
    int receiveReply(unsigned int code, Json::Value& reply);
    // The decoded reply last received for a request code.
    struct DecodedReply {
        unsigned int code = 0;
        bool valid = false;
        std::string text;  // the reply's bytes, as received
        int result = 0;
        std::string resultText;
        Json::Value data;  // null when the reply had no "data" object
    };
    // Decodes m_reply_frame into decoded unless it holds these very bytes already: decoding
    // costs far more than comparing, and a status asked again is mostly unchanged. False when
    // the reply is not a reply envelope.
    bool decodeReply(DecodedReply& decoded);
    DecodedReply& decodedReply(unsigned int code);
    // Records the client's own text for a local failure and returns code.
    int fail(int code);
    // As fail, after replacing the socket: a REQ socket that lost its reply cannot send again.
    int failAndReset(int code);

    zmq::context_t* m_context = nullptr;
    std::unique_ptr<zmq::socket_t> m_socket;
    int m_receive_timeout_ms = -1;  // as a new socket has it
    std::string m_last_result_text;
    // Built once and kept; the texts are kept so that their memory is reused.
    JsonText::Reader m_reader;
    JsonText::Writer m_writer;
    std::string m_request_text;
    zmq::message_t m_reply_frame;
    std::vector<DecodedReply> m_decoded;
    // The caller's previous reply, freed while the next request is on its way.
    Json::Value m_previous_reply;
};
