#include "ShellWord.h"

#include <cctype>

namespace {

bool isPlain(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '/' || c == '.' || c == '_' ||
           c == '-' || c == '+' || c == ',' || c == ':' || c == '@' || c == '%' || c == '=';
}

}  // namespace

std::string shellWord(const std::string& text) {
    bool plain = !text.empty();
    for (char c : text) {
        plain = plain && isPlain(c);
    }
    if (plain) {
        return text;
    }
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}
