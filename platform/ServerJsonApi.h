#pragma once

#include <json/json.h>

#include <string>
#include <vector>
#include <zmq.hpp>

#include "IpcMsg.h"
#include "JsonText.h"

// Request/reply server side. Wire format: one frame per request and reply, each a UTF-8 JSON
// object. Request {"cmd": <code>, "data": <object or null>}; reply
// {"result": <int>, "resultText": <text>, "data": <object filled by the handler>}.
class ServerJsonApi {
  public:
    static constexpr int MAX_REQUEST_SIZE = 64 * 1024;

    virtual ~ServerJsonApi() = default;

    // Receives one request from a ready REP socket, hands it to ipcProcessMsg and always sends
    // a reply: a malformed request, or an exception thrown by the handler, is answered with
    // ERROR_INVALID_PARAM and logged. Returns the handler's result, or a negative code when the
    // socket itself failed.
    int ipcPreProcessMsg(zmq::socket_t* socket);

    // The same without the socket: answers one request text with the reply text that
    // ipcPreProcessMsg would send. Returns the handler's result; never throws.
    int answerRequest(const char* request, size_t size, std::string& reply);

    virtual int getCommandDescription(unsigned int code, std::string& out) = 0;
    // replyFlag starts true; a handler that clears it gets a reply without "data".
    virtual int ipcProcessMsg(IpcMsg& msg, Json::Value& reply, bool& replyFlag) = 0;

    // Socket options every request socket needs (request size limit, no linger).
    static void configureServerSocket(zmq::socket_t& socket);

  protected:
    // True when the reply to code shows only records whose every change is followed by
    // dropKeptReplies(): the reply is then kept, text and result, and sent again without
    // running the handler until the next drop. Asked on every request. Whatever any other
    // request does, the kept replies are dropped after its handler ran.
    virtual bool isReplyKept(unsigned int code);
    // Forgets every kept reply; call wherever a record that a kept reply shows may change.
    void dropKeptReplies();

  private:
    struct KeptReply {
        unsigned int code = 0;
        bool valid = false;
        int result = 0;
        std::string text;
    };

    // Decodes one request into code and msg's payload; 0, or ERROR_INVALID_PARAM (logged).
    int decodeRequest(const char* text, size_t size, unsigned int& code, Json::Value& data);
    // Runs the handler; the result to send, and whether the handler returned one (it did not
    // throw). Never throws.
    int handleRequest(IpcMsg& msg, Json::Value& reply, bool& replyFlag, bool& returned);
    // Writes the reply envelope around data into reply; throws what the writer throws.
    void writeReply(int result, const Json::Value* data, std::string& reply);
    KeptReply* keptReply(unsigned int code);

    JsonText::Reader m_reader;
    JsonText::Writer m_writer;
    const Json::Value m_no_data{Json::objectValue};
    std::vector<KeptReply> m_kept;
    // Received request and reply text of the socket path, kept so that their memory is reused.
    zmq::message_t m_request_frame;
    std::string m_reply_text;
};
