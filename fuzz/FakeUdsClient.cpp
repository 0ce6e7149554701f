#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "FakeLink.h"
#include "msg.h"
#include "udsClient.h"

namespace {

// The fuzz input of the current run; nothing else in the harness keeps state.
struct Link {
    const uint8_t* reply = nullptr;
    size_t replySize = 0;
    unsigned char* lastReceive = nullptr;
};

Link& link() {
    static Link l;
    return l;
}

// Every request the client builds must be a message the codec itself accepts.
void checkRequest(const void* buf, unsigned int len) {
    static ptp_message copy;
    std::memset(static_cast<void*>(&copy), 0, sizeof(copy));
    std::memcpy(copy.data, buf, std::min<size_t>(len, sizeof(copy.data)));
    if (len > sizeof(copy.data) || msg_post_recv(&copy, static_cast<int>(len)) != 0) {
        std::abort();
    }
}

}  // namespace

namespace FakeLink {
void setReply(const uint8_t* data, size_t size) {
    link().reply = data;
    link().replySize = size;
}
unsigned char* lastReceiveBuffer() {
    return link().lastReceive;
}
void forgetLastReceive() {
    link().lastReceive = nullptr;
}
}  // namespace FakeLink

udsClient::udsClient(std::string serverPath, int typeFlags)
    : m_fd(0), m_type_flags(typeFlags), m_server_path(std::move(serverPath)), m_client_path() {}

udsClient::~udsClient() {
    uds_close();
}

int udsClient::uds_open() {
    return 0;
}

int udsClient::uds_send(const void* buf, unsigned int len) {
    checkRequest(buf, len);
    return static_cast<int>(len);
}

int udsClient::uds_recv(void* buf, int len, char* fromPath, int fromLen) {
    if (len < 0) {
        return -1;
    }
    std::memset(buf, 0, static_cast<size_t>(len));
    const size_t n = std::min(link().replySize, static_cast<size_t>(len));
    if (n > 0) {
        std::memcpy(buf, link().reply, n);
    }
    if (fromPath && fromLen > 0) {
        std::memset(fromPath, 0, static_cast<size_t>(fromLen));
    }
    link().lastReceive = static_cast<unsigned char*>(buf);
    return static_cast<int>(n);
}

void udsClient::uds_close() {
    m_fd = -1;
}
