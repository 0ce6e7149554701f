#include "StaleReplies.h"

#include <sys/socket.h>

#include "udsClient.h"

namespace {
// A peer that keeps sending cannot hold the caller here for long.
constexpr int MAX_DISCARDED = 256;
}  // namespace

int discardQueuedReplies(udsClient& client) {
    if (client.fd() < 0) {
        return 0;
    }
    char buf[1];  // a datagram is consumed whole whatever the buffer's size
    int discarded = 0;
    while (discarded < MAX_DISCARDED && recv(client.fd(), buf, sizeof(buf), MSG_DONTWAIT) >= 0) {
        ++discarded;
    }
    return discarded;
}
