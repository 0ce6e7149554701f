#pragma once

#include <cstddef>
#include <cstdint>

// The fuzz build's stand-in for the Unix-domain transport: udsClient is linked from
// FakeUdsClient.cpp, which answers every receive with the datagram set here and checks every
// request that is sent.
namespace FakeLink {
// The datagram every later receive returns (an empty one reads as nothing received).
void setReply(const uint8_t* data, size_t size);
// The buffer the last receive filled, or null.
unsigned char* lastReceiveBuffer();
void forgetLastReceive();
}  // namespace FakeLink
