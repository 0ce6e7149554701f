#include "IpcAddress.h"

#include <cstdio>

std::string IpcAddress::getBindAddress() const {
    char port_text[16];
    snprintf(port_text, sizeof(port_text), "%u", port);
    return "tcp://" + host + ":" + port_text;
}
