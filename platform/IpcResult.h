#pragma once

// Result codes that travel in the "result" member of a reply, and the client-side codes of a
// request that never got one.
namespace IpcResult {
constexpr int OK = 0;
constexpr int ERROR_GENERIC = -1;
constexpr int ERROR_INVALID_PARAM = -8;
constexpr int ERROR_NOT_AVAILABLE = -29;
constexpr int ERROR_BIND = -35;
// Client side: no usable reply.
constexpr int ERROR_NOT_CONNECTED = -107;
constexpr int ERROR_TRANSPORT = -5;
constexpr int ERROR_BAD_REPLY = -74;
constexpr int ERROR_TIMEOUT = -110;

// "OK" for 0, "ERROR_INVALID_PARAM" for -8, a clear upper-case text for the others.
const char* text(int result);
}  // namespace IpcResult
