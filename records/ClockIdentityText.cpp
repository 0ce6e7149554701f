#include "ClockIdentityText.h"

#include <cstdio>

std::string clockIdentityText(const unsigned char id[8]) {
    char text[24];
    snprintf(text, sizeof(text), "%02hhx-%02hhx-%02hhx-%02hhx-%02hhx-%02hhx-%02hhx-%02hhx", id[0],
             id[1], id[2], id[3], id[4], id[5], id[6], id[7]);
    return text;
}
