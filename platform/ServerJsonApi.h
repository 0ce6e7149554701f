#pragma once

#include <json/json.h>

#include <string>
#include <zmq.hpp>

#include "IpcMsg.h"

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

  private:
    // Decodes one request and runs the handler; the result to send. Never throws.
    int handleRequest(const char* text, size_t size, Json::Value& reply, bool& replyFlag);
};
