#include "IpcResult.h"

namespace IpcResult {

const char* text(int result) {
    switch (result) {
        case OK:
            return "OK";
        case ERROR_GENERIC:
            return "ERROR_FAILED";
        case ERROR_INVALID_PARAM:
            return "ERROR_INVALID_PARAM";
        case ERROR_NOT_AVAILABLE:
            return "ERROR_NOT_AVAILABLE_ON_THIS_BOARD";
        case ERROR_BIND:
            return "ERROR_BIND";
        case ERROR_NOT_CONNECTED:
            return "ERROR_NOT_CONNECTED";
        case ERROR_TRANSPORT:
            return "ERROR_TRANSPORT";
        case ERROR_BAD_REPLY:
            return "ERROR_BAD_REPLY";
        case ERROR_TIMEOUT:
            return "ERROR_TIMEOUT";
        default:
            return result > 0 ? "OK" : "ERROR";
    }
}

}  // namespace IpcResult
